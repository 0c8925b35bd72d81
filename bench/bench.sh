#!/usr/bin/env bash
# bench.sh <folder of the built programs> [--quick]: prints every benchmark's table.
set -euo pipefail
programs=$1
shift
echo "machine: $(nproc) processors, $(sed -n 's/^model name.*: //p' /proc/cpuinfo | head -n 1)," \
  "$(uname -sr)"
echo
"$programs/messaging_bench" "$@"
echo
lists=()
[ "${1:-}" != --quick ] || lists=(--benchmark_min_time=0.02)
"$programs/lists_bench" --benchmark_counters_tabular=true "${lists[@]}" 2>/dev/null
