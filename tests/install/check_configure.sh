#!/usr/bin/env bash
# Configures the source tree as on a machine without GoogleTest and Google
# Benchmark: by default that succeeds and names what it left out in one
# message; with the tests or the benchmarks asked for explicitly it fails.
#
#   check_configure.sh <source dir> <c compiler> <c++ compiler>
set -euo pipefail

source=$1 cc=$2 cxx=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

configure() {  # <name> [cmake args...]: the output in $work/<name>.log
  local name=$1; shift
  cmake -S "$source" -B "$work/$name" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DAPARTMENT_GTEST_SOURCE_DIR= -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON "$@" > "$work/$name.log" 2>&1
}

configure default || { cat "$work/default.log"; fail "configuring without GoogleTest failed"; }
notes=$(grep -c "Skipped, as a dependency is missing" "$work/default.log" || true)
[[ $notes -eq 1 ]] || { cat "$work/default.log"; fail "expected one message, found $notes"; }
grep "Skipped, as a dependency is missing" "$work/default.log"
if ! grep -q "GoogleTest" "$work/default.log" || ! grep -q "Google Benchmark" "$work/default.log"; then
  fail "the message does not name both dependencies"
fi

for option in APARTMENT_BUILD_TESTS APARTMENT_BUILD_BENCH; do
  if configure "$option" -D$option=ON; then
    fail "$option=ON configured without its dependency"
  fi
  grep -q "$option is ON but" "$work/$option.log" ||
    { cat "$work/$option.log"; fail "$option=ON failed without saying why"; }
done
echo "configure check passed"
