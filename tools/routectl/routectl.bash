# routectl.bash - completion of routectl for bash. The words come from routectl itself, so they are those it understands.
_routectl() {
    local word skip=0 words=()
    local current=${COMP_WORDS[COMP_CWORD]}
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if ((skip)); then
            skip=0
        elif [[ $word == -[bct] ]]; then
            skip=1
        elif [[ $word != -[a-z]* ]]; then
            words+=("$word")
        fi
    done
    if ((skip)); then
        case ${COMP_WORDS[COMP_CWORD - 1]} in
        -b) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        -c) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
        esac
        return
    fi
    if [[ $current == -* && $current != --* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '-j -o -b -f -c -t -h' -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" --complete "${words[@]}" "$current" 2>/dev/null)
}
complete -F _routectl routectl
