#!/usr/bin/env bash
# Installs the built engine into a temporary prefix, moves the prefix (the
# installed tree must not depend on where it was put), then builds and runs
# a C and a C++ host against it twice: through find_package and through
# pkg-config.  Each host must resolve the engine to the moved prefix.
#   run.sh BUILD_DIR
set -euo pipefail
build="$1"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"
prefix="$work/prefix"

check() {  # a host: it runs, and its engine is the prefix's
  "$1"
  local deps
  deps="$(ldd "$1")"  # whole, so that no early end of a reader cuts ldd short
  [[ "$deps" == *"libnuvrix_native.so.0 => $prefix/"* ]] ||
    { echo "$1 does not resolve the engine to $prefix"; echo "$deps"; exit 1; }
}

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake" >/dev/null
check "$work/cmake/c_host"
check "$work/cmake/cpp_host"

pc="$(find "$prefix" -name nuvrix_native.pc)"
export PKG_CONFIG_PATH="$(dirname "$pc")"
[ "$(pkg-config --modversion nuvrix_native)" = "0.1.0" ] || { echo "pkg-config version"; exit 1; }
libdir="$(pkg-config --variable=libdir nuvrix_native)"
gcc "$here/consumer.c" $(pkg-config --cflags --libs nuvrix_native) -lm -Wl,-rpath,"$libdir" \
  -o "$work/c_pc"
g++ -std=c++17 "$here/consumer.cpp" $(pkg-config --cflags --libs nuvrix_native) \
  -Wl,-rpath,"$libdir" -o "$work/cpp_pc"
check "$work/c_pc"
check "$work/cpp_pc"
# Libraries and links, the header and the package files are where a host
# looks for them.
for f in "$libdir/libnuvrix_native.so" "$libdir/libnuvrix_native.so.0" \
         "$libdir/libnuvrix_native.so.0.1.0" "$prefix/include/nuvrix.h" \
         "$libdir/cmake/nuvrix_native/nuvrix_nativeConfigVersion.cmake"; do
  [ -e "$f" ] || { echo "missing $f"; exit 1; }
done
if [ -f "$build/nuvrix_kernel.fatbin" ]; then
  [ -f "$libdir/nuvrix_kernel.fatbin" ] || { echo "the side file is not beside the library"; exit 1; }
fi
# The Python package finds the library of its own prefix, and the lens-file
# reader beside it.
if /usr/bin/python3 -c "import numpy" 2>/dev/null; then
  found="$(cd "$work" && NUVRIX_LIBRARY= PYTHONPATH="$libdir/python3/dist-packages" \
           /usr/bin/python3 -c "import nuvrix; nuvrix.Lens.cooke_triplet(); print(nuvrix.library()._name)")"
  [ "$(dirname "$(realpath "$found")")" = "$(realpath "$libdir")" ] ||
    { echo "python loads $found"; exit 1; }
fi
echo "install: find_package and pkg-config hosts passed"
