#!/usr/bin/env bash
# Builds the library and the command-line report and prints the report of
# the built-in Cooke triplet (or of the lens file given as argument).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target nuvrix >/dev/null
./build/tools/nuvrix "$@"
