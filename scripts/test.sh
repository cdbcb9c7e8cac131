#!/usr/bin/env bash
# Builds the library and the tests and runs the whole suite with CTest.
# NUVRIX_SANITIZE=ON in the environment builds with ASan + UBSan instead.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
san="${NUVRIX_SANITIZE:-OFF}"
dir="build"
[ "$san" = "ON" ] && dir="build-san"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DNUVRIX_SANITIZE="$san" >/dev/null
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
ctest --output-on-failure -j"$(nproc)"
