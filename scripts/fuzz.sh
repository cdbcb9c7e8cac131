#!/usr/bin/env bash
# Builds the libFuzzer harnesses of fuzz/ (clang++, ASan + UBSan) and fuzzes
# every exported routine.
#
#   bash scripts/fuzz.sh [SECONDS]   fuzz each harness SECONDS (default 60),
#                                    two at a time
#   bash scripts/fuzz.sh ci          replay the seeds and the committed
#                                    corpus, then fuzz each harness 10 s
#
# The working corpus of each harness is build-fuzz/corpus/<harness> (the
# generated seeds plus fuzz/corpus/<harness>); new inputs accumulate there.
# Any crash, leak, timeout or undefined behaviour fails the run and leaves
# its input in build-fuzz/artifacts/.
set -euo pipefail
cd "$(dirname "$0")/.."

mode="${1:-60}"
if [ "$mode" = "ci" ]; then
  seconds=10
elif [[ "$mode" =~ ^[0-9]+$ ]]; then
  seconds="$mode"
else
  echo "usage: $0 [SECONDS|ci]" >&2
  exit 2
fi

bash scripts/setup.sh

dir=build-fuzz
harnesses=(fuzz_trace fuzz_first_order fuzz_spot_fans fuzz_wavefront fuzz_geometric fuzz_field
           fuzz_merit fuzz_gpu)

start=$(date +%s)
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DNUVRIX_FUZZ=ON >/dev/null
cmake --build "$dir" --target nuvrix_fuzz -j2
echo "fuzz build: $(($(date +%s) - start)) s"

rm -rf "$dir/seeds"
"$dir/fuzz/make_seeds" "$dir/seeds"
mkdir -p "$dir/artifacts" "$dir/logs"

# A 256-surface system with an eight-row index table and a long tail of
# hits or PSF pixels fits well within this.
max_len=131072
common=(-max_len=$max_len -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -dict=fuzz/nuvrix.dict)
export OMP_NUM_THREADS=1
# Leaks are findings too; UBSan aborts on the first report.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

committed() {  # the committed corpus dir of a harness, if any
  [ -d "fuzz/corpus/$1" ] && echo "fuzz/corpus/$1"
  return 0
}

status=0

# Replays the seeds and the committed corpus without mutating (CI only).
if [ "$mode" = "ci" ]; then
  for h in "${harnesses[@]}"; do
    log="$dir/logs/$h.replay.log"
    # shellcheck disable=SC2046
    if "$dir/fuzz/$h" "${common[@]}" -runs=0 -artifact_prefix="$dir/artifacts/$h-" \
        "$dir/seeds/$h" $(committed "$h") >"$log" 2>&1; then
      echo "replay $h: $(grep -E '^#[0-9]+\s+DONE' "$log" | tail -1)"
    else
      echo "replay $h: FAILED (see $log)"
      grep -E 'ERROR|SUMMARY|runtime error' "$log" | head -5 || true
      status=1
    fi
  done
fi

# One fuzzing run: the working corpus first (new inputs go there), then the
# committed corpus.
fuzz_one() {
  local h="$1" corpus="$dir/corpus/$1" log="$dir/logs/$1.log"
  mkdir -p "$corpus"
  cp -n "$dir/seeds/$h"/* "$corpus"/ 2>/dev/null || true
  # shellcheck disable=SC2046
  "$dir/fuzz/$h" "${common[@]}" -max_total_time="$seconds" \
    -artifact_prefix="$dir/artifacts/$h-" "$corpus" $(committed "$h") >"$log" 2>&1
}

# Two harnesses at a time on the two cores.
declare -A pids
for h in "${harnesses[@]}"; do
  while (($(jobs -rp | wc -l) >= 2)); do wait -n || true; done
  fuzz_one "$h" &
  pids[$h]=$!
done

echo
printf '%-18s %-8s %s\n' harness result "last coverage line"
for h in "${harnesses[@]}"; do
  if wait "${pids[$h]}"; then res=ok; else res=FINDING; status=1; fi
  log="$dir/logs/$h.log"
  last=$(grep -E '^#[0-9]+\s' "$log" | tail -1 || true)
  execs=$(grep -E 'stat::number_of_executed_units' "$log" | awk '{print $2}' || true)
  rate=$(grep -E 'stat::average_exec_per_sec' "$log" | awk '{print $2}' || true)
  printf '%-18s %-8s execs=%s exec/s=%s  %s\n' "$h" "$res" "${execs:-?}" "${rate:-?}" "$last"
  if [ "$res" != ok ]; then
    grep -E 'ERROR|SUMMARY|runtime error|ALARM|Test unit written' "$log" | head -6 | sed 's/^/    /'
  fi
done

if ((status)); then
  echo "findings: inputs in $dir/artifacts/, logs in $dir/logs/" >&2
fi
exit "$status"
