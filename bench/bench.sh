#!/usr/bin/env bash
# bench.sh <folder of the built programs> [--quick] [--plots <folder>]: prints every benchmark's
# table, and draws the plots of the lists into that folder.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
programs=$1
shift
quick=() plots=
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=(--quick) ;;
    --plots) plots=${2:?a folder is missing behind --plots} && shift ;;
    *) echo "bench.sh: unknown argument $1" >&2 && exit 2 ;;
  esac
  shift
done
json=$(mktemp -d)
trap 'rm -r "$json"' EXIT

min_time=0.02 repetitions=9 lists=()
if [ ${#quick[@]} -gt 0 ]; then
  min_time=0.005 repetitions=3 lists=(--benchmark_min_time=0.02)
fi
# In random order, so that a busy moment of the machine does not hit one library alone.
sampling=(--benchmark_min_time=$min_time --benchmark_repetitions=$repetitions
          --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true)

# measure <program> <file> [option...]: the figures as JSON into the file.
measure() {
  local program=$1 file=$2
  shift 2
  "$programs/$program" "${sampling[@]}" --benchmark_format=json "$@" >"$json/$file" \
    2>"$json/log" || { cat "$json/log" >&2; return 1; }
}

echo "machine: $(nproc) processors, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -n 1)," \
  "$(uname -sr)"
echo
"$programs/messaging_bench" "${quick[@]}"
echo
"$programs/lists_bench" --benchmark_counters_tabular=true "${lists[@]}" 2>/dev/null
echo
echo "Lists beside other libraries, medians of $repetitions runs in random order"
echo
measure lists_compare compare.json
"$here/lists/table.py" "$json/compare.json"
"$here/lists/instructions.sh" "$programs/lists_instructions"
echo
for heap in system classes; do
  measure "heap_bench_$heap" "heap_$heap.json" --benchmark_filter=-Resident
  # In a process of its own, whose memory holds nothing else.
  "$programs/heap_bench_$heap" --benchmark_filter=Resident --benchmark_format=json \
    >"$json/resident_$heap.json" 2>/dev/null
done
"$here/heap/table.py" "$json"/{heap_system,heap_classes,resident_system,resident_classes}.json
if [ -n "$plots" ]; then
  "$here/plot.py" "$json"/{compare,heap_system,heap_classes}.json "$plots"
fi
