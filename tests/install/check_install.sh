#!/usr/bin/env bash
# Installs the current build into a temporary prefix and checks that it runs
# from there with nothing in the environment: the installed tool, and a
# small host built against it twice, through pkg-config and through the
# CMake package, each with only its own RUNPATH. Then moves the prefix and
# does it all again from the new place. Each host must run a request to
# itself and exit 0.
#
#   check_install.sh <build dir> <c++ compiler> <sanitizers, may be empty>
#
# Exit 77 (skipped) when a sanitizer runtime keeps an outside host from
# loading the sanitized library.
set -euo pipefail
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH

build=$1 cxx=$2 sanitize=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

flags=()
if [[ -n $sanitize ]]; then
  flags=(-fsanitize="$sanitize")
fi

fail() { echo "FAIL: $*"; exit 1; }

# A port on 127.0.0.1 that was free a moment ago.
free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' \
    2>/dev/null || echo $((20000 + RANDOM % 20000))
}

run_host() {  # <binary>
  local status
  for _ in 1 2 3 4 5; do
    status=0
    env -i timeout 30 "$1" "tcp://127.0.0.1:$(free_port)" > "$work/run.log" 2>&1 || status=$?
    cat "$work/run.log"
    [[ $status -eq 3 ]] || break
  done
  if [[ $status -ne 0 && -n $sanitize ]] &&
     grep -qiE "runtime does not come first|sanitizer.*(interceptor|runtime)" "$work/run.log"; then
    echo "SKIP: the $sanitize runtime does not load into an outside host"
    exit 77
  fi
  [[ $status -eq 0 ]] || fail "$1 exited with $status"
}

check_prefix() {  # <prefix> <label>
  local prefix=$1 label=$2
  local tool=$prefix/bin/apartment
  echo "== $label: env -i $tool version"
  env -i "$tool" version > "$work/version.log" 2>&1 ||
    { cat "$work/version.log"; fail "the installed tool does not run"; }
  cat "$work/version.log"
  grep -q '^apartment [0-9.]*, library [0-9.]*$' "$work/version.log" ||
    fail "unexpected version line"

  local pcfile libdir
  pcfile=$(find "$prefix" -name apartment.pc | head -n 1)
  [[ -n $pcfile ]] || fail "apartment.pc not installed"
  libdir=$(PKG_CONFIG_PATH=$(dirname "$pcfile") pkg-config --variable=libdir apartment)
  [[ -e $libdir/libapartment.so ]] || fail "apartment.pc names $libdir, which has no libapartment.so"

  echo "== $label: pkg-config host with RUNPATH $libdir"
  # shellcheck disable=SC2046
  "$cxx" -std=c++17 "${flags[@]}" "$here/host.cpp" -o "$work/host_pc_$label" \
    $(PKG_CONFIG_PATH=$(dirname "$pcfile") pkg-config --cflags --libs apartment) \
    -Wl,-rpath,"$libdir" > "$work/pc.log" 2>&1 || { cat "$work/pc.log"; fail "pkg-config host"; }
  run_host "$work/host_pc_$label"

  echo "== $label: CMake package host"
  if ! { cmake -S "$here" -B "$work/cmake_$label" -DCMAKE_PREFIX_PATH="$prefix" \
            -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${flags[*]}" > "$work/cmake.log" 2>&1 &&
          cmake --build "$work/cmake_$label" > "$work/cmake-build.log" 2>&1; }; then
    cat "$work/cmake.log" "$work/cmake-build.log" 2>/dev/null
    fail "CMake package host"
  fi
  run_host "$work/cmake_$label/host"
}

cmake --install "$build" --prefix "$work/prefix" > "$work/install.log" ||
  { cat "$work/install.log"; exit 1; }
for file in share/man/man1/apartment.1.gz share/man/man3/apartment.3.gz \
            share/bash-completion/completions/apartment; do
  [[ -f $work/prefix/$file ]] || fail "$file not installed"
done
check_prefix "$work/prefix" installed

# Nothing in an installation may name the directory it was installed to.
mv "$work/prefix" "$work/moved"
check_prefix "$work/moved" moved
echo "install check passed"
