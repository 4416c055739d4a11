#!/usr/bin/env bash
# Instructions per call of "value %d of %s" formatted by vsnprintf, by the
# library's formatter, and stored by tracePrintf, counted with callgrind.
#   bench/count_formatter_instructions.sh [BUILD_DIR]   (default: build)
set -euo pipefail
build=${1:-build}
program="$build/bench/nodetrace_formatter_instructions"
[[ -x $program ]] || { echo "$program not built (target nodetrace_formatter_instructions)" >&2; exit 1; }
calls=1000
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for name in vsnprintf formatText tracePrintf; do
  valgrind --tool=callgrind --collect-atstart=no --toggle-collect="measure_${name}" \
    --callgrind-out-file="$out/$name.out" "$program" > /dev/null 2>&1
  total=$(callgrind_annotate "$out/$name.out" | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }')
  # The toggled function also ran 10 warm-up calls.
  printf '%-12s %6d instructions per call\n' "$name" $(( total / (calls + 10) ))
done
