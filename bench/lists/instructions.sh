#!/usr/bin/env bash
# instructions.sh <lists_instructions>: how many instructions it takes to put a list of 8, 64 and 512
# values on a channel, and to take it off.
set -euo pipefail
program=$1
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

# count <step> <values>: the block's bytes and the instructions.
count() {
  local counted=CountedWrite
  [ "$1" != receive ] || counted=CountedRead
  # Every symbol bound at load, so that no first call of a function counts its look-up.
  LD_BIND_NOW=1 valgrind --tool=callgrind --toggle-collect="$counted" \
    --callgrind-out-file="$work/out" "$program" "$1" "$2" >"$work/bytes" 2>"$work/log" ||
    { cat "$work/log" >&2; return 1; }
  echo "$(cat "$work/bytes") $(sed -n 's/^\(totals\|summary\): //p' "$work/out" | head -n 1)"
}

echo "Instructions of putting a list on a channel and of taking it off, counted by callgrind"
printf '%-40s %8s %8s %14s\n' step values bytes instructions
for step in announce send receive; do
  case $step in
    announce) label='put on a channel that copies nothing' ;;
    send) label='put on a channel in memory' ;;
    receive) label='taken off a channel in memory' ;;
  esac
  for values in 8 64 512; do
    read -r bytes instructions <<<"$(count "$step" "$values")"
    printf '%-40s %8s %8s %14s\n' "$label" "$values" "$bytes" "$instructions"
  done
done
