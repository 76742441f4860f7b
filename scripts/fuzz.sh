#!/usr/bin/env bash
# Runs every fuzz target of build/fuzz for SECONDS seconds over a scratch copy of its seed corpus
# (fuzz/corpus/<target>, which therefore does not grow) and prints libFuzzer's final numbers.
# A target that finds a fault leaves its input in build/fuzz/findings/ and its report in
# build/fuzz/logs/<target>.log; the script then fails.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz
mkdir -p "$build/logs" "$build/findings"
failed=()
printf '%-24s %10s %14s  %s\n' target exec/s executions result
for bin in "$build"/fuzz_*; do
  [ -x "$bin" ] || continue
  t=$(basename "$bin")
  work="$build/corpus/$t"
  rm -rf "$work" && mkdir -p "$work"
  [ -d "fuzz/corpus/$t" ] && cp fuzz/corpus/"$t"/* "$work"/
  log="$build/logs/$t.log"
  # stdout closed (a debug.ini may ask for the console); the allocator's quarantine is kept rather
  # than handed back to the system each second, which costs a page fault per page reused.
  "$bin" "$work" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=1 -timeout=10 \
         -purge_allocator_interval=-1 -artifact_prefix="$build/findings/$t-" >"$log" 2>&1
  rc=$?
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  result=ok
  if [ $rc -ne 0 ]; then result="FAILED (see $log)"; failed+=("$t"); fi
  printf '%-24s %10s %14s  %s\n' "$t" "${speed:--}" "${runs:--}" "$result"
done
[ ${#failed[@]} -eq 0 ] || { echo "fuzz: ${failed[*]} found faults" >&2; exit 1; }
