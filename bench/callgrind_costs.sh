#!/usr/bin/env bash
# Instructions per call of each write-path case, counted with callgrind
# (deterministic: the figures do not drift with the machine's load), and the
# ratio of each library case to its floor. Prints only; never fails on the
# figures.
#   bench/callgrind_costs.sh [build-dir] [calls-per-case]
set -euo pipefail

BUILD_DIR=${1:-build}
COUNT=${2:-2000}
DRIVER="$BUILD_DIR/bench/nodetrace_callgrind_cases"

if ! command -v valgrind >/dev/null; then
  echo "callgrind_costs: valgrind not installed, no figures"
  exit 0
fi
if [[ ! -x "$DRIVER" ]]; then
  echo "callgrind_costs: $DRIVER not built, no figures"
  exit 0
fi

OUT=$(mktemp -d)
trap 'rm -rf "$OUT"' EXIT

# Instructions per call of one case: the counted instructions (the dump
# written around the counted runs) divided by the number of calls.
per_call() {
  local name=$1
  valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$OUT/$name.%p" \
    "$DRIVER" "$name" "$COUNT" >/dev/null 2>"$OUT/$name.log" || {
    echo "nan"
    return
  }
  local total
  total=$(grep -h '^summary:\|^totals:' "$OUT/$name".[0-9]* 2>/dev/null |
          awk '{ if ($2 > max) max = $2 } END { print max + 0 }')
  awk -v t="$total" -v n="$COUNT" 'BEGIN { printf "%.0f", t / n }'
}

declare -A IR
for name in $("$DRIVER" list 0); do
  IR[$name]=$(per_call "$name")
done
# Net of the cost of calling a case (the loop, the wrapper, the arguments).
HARNESS=${IR[harness]}
for name in "${!IR[@]}"; do
  [[ $name == harness ]] && continue
  IR[$name]=$(awk -v a="${IR[$name]}" -v h="$HARNESS" 'BEGIN { printf "%.0f", a - h }')
done

ratio() {
  awk -v a="${IR[$1]}" -v b="${IR[$2]}" 'BEGIN { if (b > 0) printf "%.2fx", a / b; else print "-" }'
}

printf '%-28s %14s   %s\n' "case" "instr/call" "against"
row() {
  local name=$1 floor=${2:-}
  if [[ -n "$floor" ]]; then
    printf '%-28s %14s   %s of %s\n' "$name" "${IR[$name]}" "$(ratio "$name" "$floor")" "$floor"
  else
    printf '%-28s %14s\n' "$name" "${IR[$name]}"
  fi
}
row floor_text
row stored_text_row0 floor_text
row stored_text_row29 stored_text_row0
row stored_text_unknown_name stored_text_row0
row floor_dump
row stored_dump_1600 floor_dump
row filtered_tracePrintf
row filtered_addTraceEntry
row floor_error_file_calls
row error_entry floor_error_file_calls
echo "(net of ${HARNESS} instructions of calling a case; $COUNT calls per case, instructions in user space only: a system call counts as its few instructions of entry, and under valgrind clock_gettime is one)"
