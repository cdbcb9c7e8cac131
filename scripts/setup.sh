#!/usr/bin/env bash
# Installs what the build needs on a fresh Debian machine (idempotent).
set -euo pipefail
need=()
for pkg in cmake g++ libgtest-dev libbenchmark-dev nlohmann-json3-dev clang libfuzzer-14-dev libomp-dev libeigen3-dev \
           pkg-config python3-numpy python3-matplotlib python3-pytest; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if ((${#need[@]})); then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
fi
