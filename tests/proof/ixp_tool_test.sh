#!/bin/bash
# ixp_tool_test.sh IXP - the tool's modes on a memory made by hand: one tree, one node, a /8 in it.
set -euo pipefail
ixp=$1
card=$(mktemp -d /tmp/card.XXXXXX)
trap 'rm -rf "$card"' EXIT
export CARD_DIR=$card
mkdir "$card/mem"
memory=$card/mem/ixp1
truncate -s $((0x103400)) "$memory"

fail() {
    echo "$*" >&2
    exit 1
}
# put OFFSET WORD: one word, in the host's order.
put() {
    local bytes
    bytes=$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($2 & 255)) $(($2 >> 8 & 255)) $(($2 >> 16 & 255)) $(($2 >> 24 & 255)))
    printf '%b' "$bytes" | dd of="$memory" bs=4 seek=$(($1 / 4)) conv=notrunc status=none
}
# expect STATUS PATTERN COMMAND...
expect() {
    local status=0 out
    out=$("${@:3}" 2>&1) || status=$?
    [[ $status == "$1" ]] || fail "${*:3}: status $status, not $1: $out"
    [[ $out =~ $2 ]] || fail "${*:3}: no '$2' in: $out"
}

put 0 0x202401                     # root of tree 0: node 0
put $((0x400 + 4 * 10)) 0x302400   # slot 10: leaf 0
put 0x100400 0x40051234            # its word: ECMP, interface 5
put 0x100404 0x304400              # block 0
put 0x102400 0x92000000            # valid, one entry
put 0x102404 $((6 << 18 | 0x5678)) # interface 6

expect 0 'interface 5 encap 0x1234, interface 6 encap 0x5678' "$ixp" lookup 10.1.2.3
expect 1 'miss' "$ixp" lookup 11.1.2.3
expect 1 'miss' "$ixp" -t 7 lookup 10.1.2.3
expect 0 '"interface":6' "$ixp" --json lookup 10.1.2.3
expect 2 'not an address' "$ixp" lookup 10.1.2
expect 2 'no route manager has run' "$ixp" -m ixp2 lookup 10.1.2.3
expect 2 'ixp: .*subcommand' "$ixp"
expect 2 'ixp: --tree' "$ixp" -t 256 lookup 10.1.2.3
expect 0 '^ixp [0-9.]+$' "$ixp" --version
expect 2 'no such implementation' "$ixp" --implementation fast lookup 10.1.2.3
for implementation in scalar batch auto; do
    expect 0 '"misses": 0,' "$ixp" --json --implementation "$implementation" run --addresses zipf --seconds 0.05
done
expect 0 'path 1 ' "$ixp" run --addresses zipf --seconds 0.05
echo '10.0.0.1 # a comment' >"$card/list"
expect 0 'misses +0' "$ixp" run --addresses "$card/list" --seconds 0.05

# What changes is told once.
exec {answers}< <("$ixp" follow --every-ms 1 --seconds 20 10.1.2.3)
follower=$!
read -r line <&"$answers"
[[ $line =~ 0x40051234 ]] || fail "follow: $line"
put 0x100400 0x00070001
read -r line <&"$answers"
[[ $line =~ 0x00070001\ interface\ 7\ encap\ 0x0001$ ]] || fail "follow: $line"
kill "$follower"
