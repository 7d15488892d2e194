# routectl.bash - completion of routectl for bash. The words come from routectl itself, so they are those it understands.
_routectl() {
    local word previous='' words=()
    local current=${COMP_WORDS[COMP_CWORD]}
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $previous in
        -[bct] | --batch | --card | --timeout) previous='' ;; # the word is its value
        *)
            previous=$word
            [[ $word == -[a-zA-Z]* || ($word == --* && ${#words[@]} == 0) ]] || words+=("$word")
            ;;
        esac
    done
    case $previous in
    -b | --batch) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    -c | --card) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    -t | --timeout) ;;
    *)
        if [[ $current == -* ]] && ((${#words[@]} == 0)); then
            local all='-j --json -o --oneline -b --batch -f --go-on -c --card -t --timeout -h --help -V --version'
            mapfile -t COMPREPLY < <(compgen -W "$all" -- "$current")
        elif [[ $current == -* && $current != --* ]]; then
            mapfile -t COMPREPLY < <(compgen -W '-j -o -b -f -c -t -h -V' -- "$current")
        else
            mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" --complete "${words[@]}" "$current" 2>/dev/null)
        fi
        ;;
    esac
}
complete -F _routectl routectl
