#!/usr/bin/env bash
# Three malformed stanzas cost themselves and nothing else: each is told with file and line, the
# scanner's exit code says that some were left out, and all others reach catalog and watcher.
#
#   malformed_stanza.sh DEMO BINDIR SAMPLE
set -euo pipefail

demo=$1
bindir=$2
sample=$3

work=$(mktemp -d "${TMPDIR:-/tmp}/tq-malformed.XXXXXX")
trap 'rm -rf "$work"' EXIT

check() {
  if ! eval "$2"; then
    printf 'not so: %s\n' "$1" >&2
    cat "$work/out" "$work/err" >&2
    exit 1
  fi
}

# The good stanzas in two halves, with a bad one before, between and behind them.
half=$(awk 'NR > 1000 && /^$/ { print NR; exit }' "$sample")
lines=$(wc -l <"$sample")
{
  printf 'Status: install ok installed\nVersion: 1\n\n'
  head -n "$half" "$sample"
  printf 'Package: half\nStatus: install ok installed\nVersion: 1\nInstalled-Size: some\n\n'
  tail -n +"$((half + 1))" "$sample"
  printf '\nPackage: last\nthis is no field'
} >"$work/status"

code=0
"$demo" "$bindir" "$work/status" >"$work/out" 2>"$work/err" || code=$?
installed=$(grep -c '^Status: install ok installed$' "$sample")

check "the demo fails" '[[ $code -eq 1 ]]'
check "the first is told" 'grep -q "^$work/status:1: .*Package" "$work/err"'
check "the second is told" 'grep -q "^$work/status:$((half + 7)): .*\"some\"" "$work/err"'
check "the third is told" 'grep -q "^$work/status:$((lines + 11)): .*this is no field" "$work/err"'
check "the scanner says so" 'grep -q "the scanner ended with 3" "$work/err"'
check "it counts three" 'grep -q "^  malformed  *3$" "$work/out"'
check "all others arrive" '[[ $(grep -c "^  packages  *$installed$" "$work/out") -eq 3 ]]'
check "all agree" '! grep -q "the catalog has\|the watcher has" "$work/err"'
check "nothing is left over" \
  '[[ $(grep -c "^  left over  *0 sessions, 0 messages, 0 lists$" "$work/out") -eq 3 ]]'
