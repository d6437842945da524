#!/usr/bin/env bash
# Installs the current build into a temporary prefix and builds a small host
# against it twice, through pkg-config and through the CMake package; each
# host must run a request to itself and exit 0.
#
#   check_install.sh <build dir> <c++ compiler> <sanitizers, may be empty>
#
# Exit 77 (skipped) when a sanitizer runtime keeps an outside host from
# loading the sanitized library.
set -euo pipefail

build=$1 cxx=$2 sanitize=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log" ||
  { cat "$work/install.log"; exit 1; }

pcfile=$(find "$prefix" -name apartment.pc | head -n 1)
[[ -n $pcfile ]] || { echo "FAIL: apartment.pc not installed"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libapartment.so' | head -n 1)")
export PKG_CONFIG_PATH=$(dirname "$pcfile")
export LD_LIBRARY_PATH=$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

flags=()
if [[ -n $sanitize ]]; then
  flags=(-fsanitize="$sanitize")
fi

# A port on 127.0.0.1 that was free a moment ago.
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' \
    2>/dev/null || echo $((20000 + RANDOM % 20000))
}

run_host() {  # <binary>
  local status
  for attempt in 1 2 3 4 5; do
    status=0
    timeout 30 "$1" "tcp://127.0.0.1:$(free_port)" > "$work/run.log" 2>&1 || status=$?
    cat "$work/run.log"
    [[ $status -eq 3 ]] || break
  done
  if [[ $status -ne 0 && -n $sanitize ]] &&
     grep -qiE "runtime does not come first|sanitizer.*(interceptor|runtime)" "$work/run.log"; then
    echo "SKIP: the $sanitize runtime does not load into an outside host"
    exit 77
  fi
  if [[ $status -ne 0 ]]; then
    echo "FAIL: $1 exited with $status"
    exit 1
  fi
}

echo "== pkg-config: $(pkg-config --cflags --libs apartment)"
# shellcheck disable=SC2046
if ! "$cxx" -std=c++17 "${flags[@]}" "$here/host.cpp" -o "$work/host_pc" \
      $(pkg-config --cflags --libs apartment) 2> "$work/pc.log"; then
  cat "$work/pc.log"
  exit 1
fi
run_host "$work/host_pc"

echo "== CMake package"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${flags[*]}" > "$work/cmake.log" 2>&1 &&
  cmake --build "$work/cmake" > "$work/cmake-build.log" 2>&1 ||
  { cat "$work/cmake.log" "$work/cmake-build.log" 2>/dev/null; exit 1; }
run_host "$work/cmake/host"
echo "install check passed"
