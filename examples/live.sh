#!/bin/bash
# live.sh BUILD - a live card between a client and a server in network namespaces, with the programs of a build tree.
#
#   client 10.0.1.2 --- 10.0.1.1 router 10.0.2.1 --- 10.0.2.2 server 20.0.0.1
#                                       10.0.3.1 --- 10.0.3.2
# BIRD gives the router its route to 20.0.0.0/24, by the first way while that has a link, else by the second. Each step
# happens under pings, which are counted: those that were answered, and the packets that the card sent on by itself.
# Status: 0 all right, 1 packets were lost where none may be, 77 something is missing that it needs.
# Always: whatever was started and made is gone when it ends.
set -euo pipefail
build=$(realpath "${1:?usage: live.sh BUILD}")
tag=lv$$ pins=/sys/fs/bpf/live_example_$$ interval=0.002

skip() {
    printf 'live: %s\n' "$*" >&2
    exit 77
}
((EUID == 0)) || skip "needs the superuser"
for program in ip ping traceroute ethtool bird birdc nsenter; do
    command -v "$program" >/dev/null || skip "$program is missing"
done
[[ -x $build/live/cardlive ]] || skip "cardlive is not built (cmake says what it needs)"
[[ -w /sys/fs/bpf ]] && mountpoint -q /sys/fs/bpf || skip "no BPF file system: mount -t bpf bpf /sys/fs/bpf"

work=$(mktemp -d /tmp/live.XXXXXX)
export CARD_DIR=$work/card
declare -A pids=()
wrong=0
clean_up() {
    for name in "${!pids[@]}"; do stop "$name" KILL; done
    "$build/live/cardlive" --pins "$pins" --detach >/dev/null 2>&1 || true
    for host in client router server; do ip netns del "$tag$host" 2>/dev/null || true; done
    rm -rf "$work"
}
trap clean_up EXIT

at() { nsenter --net="/run/netns/$tag$1" "${@:2}"; } # `ip netns exec` would hide the BPF file system
start() {
    local name=$1
    shift
    "$@" >>"$work/$name.out" 2>&1 &
    pids[$name]=$!
}
stop() {
    kill "-$2" "${pids[$1]}" 2>/dev/null || true
    wait "${pids[$1]}" 2>/dev/null || true
    unset "pids[$1]"
}
# Waits until a command succeeds; ends the run when it does not.
await() {
    local what=$1 tries=0
    shift
    until "$@" >/dev/null 2>&1; do
        ((++tries < 1500)) || {
            printf 'live: %s did not come about\n' "$what" >&2
            cat "$work"/*.out >&2
            exit 1
        }
        sleep 0.02
    done
}
# How often cardlive has said a line.
said() { grep -c -e "$1" "$work/cardlive.out" || true; }
said_again() { (($(said "$1") > $2)); }
# Packets that the card has sent on.
sent_on() {
    "$build/live/cardlive" --status | grep -o '"out_packets":[0-9]*' | awk -F: '{ sum += $2 } END { print sum + 0 }'
}

# step TEXT MAY_LOSE COMMAND...: the command under pings.
step() {
    local text=$1 may_lose=$2 before sent received
    shift 2
    printf '\n== %s\n' "$text"
    before=$(sent_on)
    nsenter --net="/run/netns/${tag}client" ping -q -i "$interval" 20.0.0.1 >"$work/ping" 2>&1 &
    local ping=$!
    sleep 0.3
    "$@"
    sleep 0.3
    kill -INT "$ping"
    wait "$ping" || true
    read -r sent received < <(awk '/transmitted/ { print $1, $4 }' "$work/ping")
    printf '   %s pings, %s answered; %s packets sent on by the card, of %s\n' "$sent" "$received" \
        $(($(sent_on) - before)) $((sent + received))
    # The one that is on its way when ping ends has no answer.
    if ((may_lose == 0 && sent - received > 1)); then
        printf '   WRONG: %s were lost\n' $((sent - received))
        wrong=1
    fi
}

printf '== three namespaces\n'
for host in client router server; do
    ip netns add "$tag$host"
    ip -n "$tag$host" link set lo up
done
join() { # HOST LINK ADDRESS ROUTER'S LINK ITS ADDRESS
    ip link add "$2" netns "$tag$1" type veth peer name "$4" netns "${tag}router"
    ip -n "$tag$1" addr add "$3" dev "$2"
    ip -n "$tag$1" link set "$2" up
    ip -n "${tag}router" addr add "$5" dev "$4"
    ip -n "${tag}router" link set "$4" up
    # Frames from a native program reach only a link whose other end takes them as a driver's; and what leaves without
    # its checksum would stay so.
    at "$1" ethtool -K "$2" gro on tx off >/dev/null
}
join client c0 10.0.1.2/24 r0 10.0.1.1/24
join server s1 10.0.2.2/24 r1 10.0.2.1/24
join server s2 10.0.3.2/24 r2 10.0.3.1/24
for host in router server; do
    at "$host" sysctl -qw net.ipv4.conf.all.rp_filter=0
    for link in $(at "$host" ls /proc/sys/net/ipv4/conf); do
        at "$host" sysctl -qw "net.ipv4.conf.$link.rp_filter=0"
    done
done
at router sysctl -qw net.ipv4.ip_forward=1
ip -n "${tag}client" route add default via 10.0.1.1
ip -n "${tag}server" addr add 20.0.0.1/32 dev lo
ip -n "${tag}server" route add 10.0.1.0/24 via 10.0.3.1

# bird_conf FIRST: the route by the first way is worth FIRST, by the second 100.
bird_conf() {
    cat >"$work/bird.conf" <<TEXT
router id 10.0.2.1;
protocol device { scan time 1; }
protocol kernel { ipv4 { export all; }; }
protocol static one { ipv4 { preference $1; }; check link yes; route 20.0.0.0/24 via 10.0.2.2; }
protocol static two { ipv4 { preference 100; }; check link yes; route 20.0.0.0/24 via 10.0.3.2; }
TEXT
}
bird_conf 200
start bird nsenter --net="/run/netns/${tag}router" bird -f -c "$work/bird.conf" -s "$work/bird.ctl" -P "$work/bird.pid"
goes_by() { ip -n "${tag}router" route show 20.0.0.0/24 | grep -q "via $1 "; }
await "BIRD's route" goes_by 10.0.2.2

printf '== the card: cardlive, then the route manager\n'
mkdir -m 700 "$CARD_DIR"
printf 'ixp2 = provider\n' >"$CARD_DIR/card.conf"
chmod 600 "$CARD_DIR/card.conf"
run_cardlive() {
    start cardlive nsenter --net="/run/netns/${tag}router" "$build/live/cardlive" --pins "$pins" --conf "$work/none" \
        --routes "$work/none"
}
run_cardlive
await "cardlive" grep -q "cardlive: serves" "$work/cardlive.out"
start routemgr "$build/routemgr"
await "the card" grep -q "the card stands" "$work/cardlive.out"
grep -h -e ' mode' "$work/cardlive.out" | sort -u

step "ping" 0 sleep 0.5
at client traceroute -n -q 1 -w 1 20.0.0.1

move_route() {
    bird_conf 50
    birdc -s "$work/bird.ctl" configure >/dev/null
    await "the other way" goes_by 10.0.3.2
    sleep 0.3
    bird_conf 200
    birdc -s "$work/bird.ctl" configure >/dev/null
    await "the first way" goes_by 10.0.2.2
}
step "BIRD moves the route to the other way, and back" 0 move_route

lose_link() {
    ip -n "${tag}server" link set s1 down
    await "the way that is left" goes_by 10.0.3.2
    sleep 0.3
}
step "the link of the first way dies (pings are lost until BIRD has seen it)" 1 lose_link
find_link() {
    ip -n "${tag}server" link set s1 up
    await "the first way" goes_by 10.0.2.2
}
# What is left to the kernel at that moment was once lost there; it looks for the neighbour anew.
step "it comes back (pings that go to the kernel may be lost)" 1 find_link

kill_manager() {
    local before
    before=$(said 'table is searched')
    stop routemgr KILL
    sleep 0.5
    start routemgr "$build/routemgr"
    await "the new table" said_again 'table is searched' "$before"
}
step "the route manager is killed; another one fills the other table" 0 kill_manager

kill_cardlive() {
    local before
    before=$(said 'the card stands')
    stop cardlive KILL
    sleep 0.5
    run_cardlive
    await "the card" said_again 'the card stands' "$before"
}
step "cardlive is killed; another one takes over what is there" 0 kill_cardlive

step "ping" 0 sleep 0.5
printf '\n'
((wrong == 0)) || exit 1
printf '== none lost but while a link was dead\n'
