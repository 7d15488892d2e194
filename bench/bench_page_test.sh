#!/bin/bash
# bench_page_test.sh BENCH_PAGE LINES_BENCH PAGE - a run's table gets into a copy of the page, and nothing else changes.
set -euo pipefail
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp "$3" "$folder/page"

fail() {
    echo "bench_page: $*" >&2
    exit 1
}
# Everything but the table of the lines.
without_table() { sed '/^<!-- bench: The fixed lines, /,/^<!-- end -->$/d' "$1"; }

"$2" --brief --json >"$folder/objects"
"$1" "$folder/page" <"$folder/objects"
grep -q 'BRIEF' "$folder/page" || fail "the table is not there"
cmp <(without_table "$3") <(without_table "$folder/page") || fail "more than the table has changed"
cp "$folder/page" "$folder/once"
"$1" "$folder/page" <"$folder/objects"
cmp "$folder/once" "$folder/page" || fail "the second time is not like the first"

! sed 's/"subject":"/&no /' "$folder/objects" | "$1" "$folder/page" 2>"$folder/said" || fail "a table without a place"
grep -q 'no place for the table of "no The fixed lines' "$folder/said" || fail "said: $(cat "$folder/said")"
! echo nonsense | "$1" "$folder/page" 2>/dev/null || fail "no object"
! echo '{"subject":"Processor lookup"}' | "$1" "$folder/page" 2>/dev/null || fail "an object without rows"
cmp "$folder/once" "$folder/page" || fail "a refused object has changed the page"
