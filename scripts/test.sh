#!/usr/bin/env bash
# Builds the library three ways and runs the whole test suite:
#   build/gcc   g++ 12, warnings as errors, configured for /usr as a Debian
#               package build is; runs the install, package and manual
#               checks, the Python module's and the Wireshark dissector's
#               tests, and the checks under an address-space limit
#   build/tsan  clang 14 + ThreadSanitizer, the threaded tests (label tsan)
#   build/asan  clang 14 + AddressSanitizer + UndefinedBehaviorSanitizer,
#               every test, fuzz targets replayed and run briefly
# Usage: scripts/test.sh [extra ctest arguments for the final run]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
configure() {  # <dir> <cc> <cxx> [cmake args...]
  local dir=$1 cc=$2 cxx=$3; shift 3
  cmake -S . -B "$dir" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
        -DAPARTMENT_WERROR=ON "$@" > "$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log"; exit 1; }
}
mkdir -p build

echo "== g++ build (warnings are errors)"
# Debian's interpreter, for which install-deps.sh installs pytest and the
# headers (another python3 may come first on PATH).
configure build/gcc gcc g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DPython3_EXECUTABLE=/usr/bin/python3
cmake --build build/gcc -j "$jobs"
ctest --test-dir build/gcc -L 'install|package|man|python|dissector' --no-tests=error -j "$jobs" \
  --output-on-failure
# Limits on address space only work without a sanitizer's reserved shadow.
ctest --test-dir build/gcc -R 'AddressSpaceLimit' --no-tests=error -j "$jobs" --output-on-failure

echo "== clang ThreadSanitizer build"
configure build/tsan clang clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAPARTMENT_SANITIZE=thread
cmake --build build/tsan -j "$jobs"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build/tsan -L tsan --no-tests=error -j "$jobs" --output-on-failure

echo "== clang AddressSanitizer + UndefinedBehaviorSanitizer build"
configure build/asan clang clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DAPARTMENT_SANITIZE=address,undefined -DAPARTMENT_FUZZ=ON
cmake --build build/asan -j "$jobs"
ASAN_OPTIONS="detect_leaks=1:abort_on_error=0" UBSAN_OPTIONS="print_stacktrace=1" \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure "$@"
