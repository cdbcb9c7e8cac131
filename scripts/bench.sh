#!/usr/bin/env bash
# Builds and runs the benchmarks (medians of five repetitions).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DNUVRIX_BENCH=ON >/dev/null
cmake --build build-bench -j"$(nproc)"
for b in build-bench/bench/bench_*; do
  "$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
done
