#!/usr/bin/env bash
# Runs catalog, watcher and scanner on one status file and compares what they say.
#
#   demo.sh BINDIR [--pipe NAME] [STATUS_FILE] [SCANNER_OPTION...]
#
# BINDIR holds the three programs. They talk over TCP, or over the pipe of that name, which nobody
# else may be using. The status file is the machine's own where nothing else is said, and the sample
# beside this script where the machine has none.
#
# Exits with 0 only if all three ended well with the same totals, if these are the totals that
# dpkg-query reports for the same file, and if no session, message or list was left over.
set -euo pipefail

readonly SYSTEM_STATUS=/var/lib/dpkg/status
readonly READY_LIMIT_SECONDS=20 # for a program to say that it is ready
readonly RUN_LIMIT_SECONDS=90   # for all three to end
readonly KILL_LIMIT_SECONDS=15  # for a program that was told to end; on a pipe it takes up to 10

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

say() { printf 'demo: %s\n' "$*"; }
fail() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

[[ $# -ge 1 ]] || fail "usage: demo.sh BINDIR [--pipe NAME] [STATUS_FILE] [SCANNER_OPTION...]"
bindir=$1
shift
for program in catalog watcher scanner; do
  [[ -x $bindir/$program ]] || fail "$bindir/$program is not there; build it first"
done

pipe=
if [[ ${1:-} == --pipe ]]; then
  [[ -n ${2:-} ]] || fail "--pipe needs a name"
  pipe=$2
  shift 2
fi

if [[ $# -ge 1 && $1 != -* ]]; then
  status_file=$1
  shift
elif [[ -s $SYSTEM_STATUS ]]; then
  status_file=$SYSTEM_STATUS
else
  status_file=$here/sample_status
  say "no $SYSTEM_STATUS here, so the sample is used"
fi
[[ -r $status_file ]] || fail "$status_file cannot be read"

work=$(mktemp -d "${TMPDIR:-/tmp}/tq-demo.XXXXXX")
declare -A pids=()

# alive NAME: whether the program still runs.
alive() { [[ -n ${pids[$1]:-} ]] && kill -0 "${pids[$1]}" 2>/dev/null; }

cleanup() {
  local name deadline=$((SECONDS + KILL_LIMIT_SECONDS))
  for name in "${!pids[@]}"; do
    kill "${pids[$name]}" 2>/dev/null || true
  done
  for name in "${!pids[@]}"; do
    while alive "$name" && ((SECONDS < deadline)); do sleep 0.05; done
    kill -KILL "${pids[$name]}" 2>/dev/null || true
    wait "${pids[$name]}" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# wait_until_ready NAME TEXT: waits for a line with the text. Fails if the program ends before, or
# is too slow.
wait_until_ready() {
  local deadline=$((SECONDS + READY_LIMIT_SECONDS))
  # The file is there only once the program has been started.
  until grep -qs -- "$2" "$work/$1.out"; do
    alive "$1" && ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}

# wait_for_end NAME: waits for the program and returns its exit code.
wait_for_end() {
  local pid=${pids[$1]}
  while alive "$1"; do
    ((SECONDS < run_deadline)) || fail "$1 has not ended after $RUN_LIMIT_SECONDS seconds"
    sleep 0.05
  done
  unset "pids[$1]"
  wait "$pid"
}

# start_catalog_on OPTION VALUE: the place where it listens.
start_catalog_on() {
  "$bindir/catalog" "$@" --auth "$work/auth" >"$work/catalog.out" 2>"$work/catalog.err" &
  pids[catalog]=$!
  wait_until_ready catalog "listening" || return 1
  connection+=("$@")
}

# start_catalog: on the pipe, or on a port that was free a moment ago. If somebody takes the port in
# between, the catalog says so and ends, and the next one is tried.
start_catalog() {
  local attempt port
  if [[ -n $pipe ]]; then
    start_catalog_on --pipe "$pipe"
    return
  fi
  for attempt in {1..10}; do
    # Below the range from which systems take the ports of outgoing connections.
    port=$((20000 + RANDOM % 10000))
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      continue
    fi
    start_catalog_on --port "$port" && return 0
    alive catalog && return 1
    unset "pids[catalog]"
  done
  return 1
}

# row NAME LABEL: the value behind a label in a program's closing table.
row() {
  awk -v label="  $2  " 'index($0, label) == 1 {
    value = substr($0, length(label)); sub(/^ +/, "", value); print value }' "$work/$1.out"
}

# totals NAME: packages, installed size, dependencies and removals in one line.
totals() {
  printf '%s packages, %s, %s dependencies, %s removals' "$(row "$1" packages)" \
    "$(row "$1" 'installed size')" "$(row "$1" dependencies)" "$(row "$1" removals)"
}

# count_installed: sums up lines of state, size and dependencies, with tabs between them.
count_installed() {
  awk -F '\t' '
    $1 == "installed" {
      ++packages
      size += $2
      n = split($3, names, /[,|]/)
      for (i = 1; i <= n; ++i) if (names[i] ~ /[^ ]/) ++dependencies
    }
    $1 == "config-files" || $1 == "not-installed" { ++removals }
    END {
      printf "%d packages, %d KiB, %d dependencies, %d removals", packages, size, dependencies,
        removals
    }'
}

# reference: the totals of the status file, by a program that is not one of the three.
reference() {
  if command -v dpkg-query >/dev/null; then
    dpkg-query --admindir="$work/admin" -W \
      -f='${db:Status-Status}\t${Installed-Size}\t${Pre-Depends},${Depends}\n' | count_installed
  else
    awk '
      function flush() { if (state != "") printf "%s\t%s\t%s\n", state, size, names
                         state = ""; size = 0; names = "" }
      /^$/ { flush() }
      /^Status:/ { state = $4 }
      /^Installed-Size:/ { size = $2 }
      /^(Pre-)?Depends:/ { sub(/^[^:]*:/, ""); names = names "," $0 }
      END { flush() }' "$status_file" | count_installed
  fi
}

mkdir -p "$work/admin/info" "$work/admin/updates"
cp "$status_file" "$work/admin/status"
head -c 256 /dev/urandom >"$work/auth"
connection=(--auth "$work/auth")
run_deadline=$((SECONDS + RUN_LIMIT_SECONDS))

say "$status_file"
start_catalog || { cat "$work/catalog.err" >&2; fail "the catalog does not listen"; }

"$bindir/watcher" "${connection[@]}" >"$work/watcher.out" 2>"$work/watcher.err" &
pids[watcher]=$!
wait_until_ready watcher "watching" ||
  { cat "$work/watcher.err" >&2; fail "the watcher is not ready"; }

# What the scanner says of progress and of malformed stanzas goes straight to the user.
"$bindir/scanner" "${connection[@]}" --in-flight 4 "$@" "$status_file" >"$work/scanner.out" &
pids[scanner]=$!

problems=0
problem() {
  printf 'demo: %s\n' "$*" >&2
  problems=$((problems + 1))
}

[[ -z $pipe ]] ||
  say "an idle pipe listener looks up every 10 seconds, so the catalog may take that long to end"
for program in scanner watcher catalog; do
  code=0
  wait_for_end "$program" || code=$?
  [[ $program == scanner ]] || cat "$work/$program.err" >&2
  cat "$work/$program.out"
  # Without the scanner's end the others would wait in vain.
  [[ $program != scanner || $code == [03] ]] || fail "the scanner ended with $code"
  [[ $code == 0 ]] || problem "the $program ended with $code"
done

for program in catalog watcher; do
  [[ $(totals "$program") == "$(totals scanner)" ]] ||
    problem "the $program has $(totals "$program"), the scanner $(totals scanner)"
done
for program in scanner watcher catalog; do
  [[ $(row "$program" "left over") == "0 sessions, 0 messages, 0 lists" ]] ||
    problem "the $program leaves over: $(row "$program" "left over")"
done

if command -v dpkg-query >/dev/null; then
  judge=dpkg-query
else
  judge=awk
  say "dpkg-query is not installed, so awk counts instead"
fi
cmp -s "$status_file" "$work/admin/status" || problem "$status_file has changed meanwhile"
expected=$(reference) || problem "$judge cannot read $status_file"
if [[ " $* " == *" --remove-all "* ]]; then
  # Every package that is there counts as removed in the end.
  read -r packages _ _ _ _ _ removals _ <<<"$expected"
  expected="0 packages, 0 KiB, 0 dependencies, $((packages + removals)) removals"
fi
[[ $(totals scanner) == "$expected" ]] ||
  problem "$judge has $expected, the scanner $(totals scanner)"

((problems == 0)) || exit 1
say "scanner, catalog, watcher and $judge agree: $expected"
