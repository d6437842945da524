#!/usr/bin/env bash
# Builds the Debian packages of the current build with CPack, checks their
# names, versions, dependencies and contents, unpacks them into a scratch
# root with dpkg-deb -x and runs the unpacked tool, the unpacked Python
# module and a host built against the unpacked files, with nothing in the
# environment. Runs lintian when it is installed: an error fails the check,
# warnings are listed.
#
#   check_package.sh <build dir> <c++ compiler> <version> <soversion> <debian revision>
#                    <Python version the module is built for, or 0 when it is not>
#
# Exit 77 (skipped) when dpkg-deb is missing.
set -euo pipefail
unset LD_LIBRARY_PATH PKG_CONFIG_PATH

build=$1 cxx=$2 version=$3 soversion=$4 debver=$3-$5 pyversion=$6
here=$(cd "$(dirname "$0")" && pwd)
command -v dpkg-deb > /dev/null || { echo "SKIP: dpkg-deb is not installed"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack"; }

arch=$(dpkg --print-architecture)
runtime=libapartment$soversion dev=libapartment-dev
deb_runtime=$work/out/${runtime}_${debver}_$arch.deb
deb_dev=$work/out/${dev}_${debver}_$arch.deb
deb_tools=$work/out/apartment-tools_${debver}_$arch.deb
deb_wireshark=$work/out/apartment-wireshark_${debver}_$arch.deb
debs=("$deb_runtime" "$deb_dev" "$deb_tools" "$deb_wireshark")
deb_python=$work/out/python3-apartment_${debver}_$arch.deb
[[ $pyversion == 0 ]] || debs+=("$deb_python")
for deb in "${debs[@]}"; do
  [[ -f $deb ]] || { ls "$work/out"; fail "no $(basename "$deb")"; }
  echo "== $(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
done

# contains <deb> <file pattern>...: every pattern matches a file listed.
contains() {
  local deb=$1 listing pattern; shift
  listing=$(dpkg-deb -c "$deb" | awk '{ print $6 }')
  for pattern in "$@"; do
    grep -qE "^\./usr/$pattern$" <<< "$listing" || fail "$(basename "$deb") lacks /usr/$pattern"
  done
}
lib='lib/([a-z0-9_-]+/)?'
contains "$deb_runtime" "${lib}libapartment\.so\.$soversion" "${lib}libapartment\.so\.$version" \
  "${lib}libapartment_platform\.so\.$soversion" "${lib}libapartment_platform\.so\.$version"
contains "$deb_dev" "${lib}libapartment\.so" "${lib}libapartment_platform\.so" \
  "include/apartment/ApartmentApi\.h" "${lib}pkgconfig/apartment\.pc" \
  "${lib}cmake/Apartment/ApartmentConfig\.cmake" "share/man/man3/apartment\.3\.gz"
contains "$deb_tools" "bin/apartment" "share/man/man1/apartment\.1\.gz" \
  "share/bash-completion/completions/apartment"
# The dissector goes where this system's tshark, if any, loads Lua plugins from.
plugins=$(tshark -G folders 2> /dev/null | sed -nE 's|^Global Lua Plugins:\s*/usr/||p') || true
contains "$deb_wireshark" "${plugins:-${lib}wireshark/plugins}/apartment\.lua"
if dpkg-deb -c "$deb_runtime" | grep -qE '\.so( |$)'; then
  fail "$runtime holds an unversioned .so link, which belongs to $dev"
fi
depends() {  # <deb> <regex>
  dpkg-deb -f "$1" Depends | tr ',' '\n' | grep -qE "^ *$2 *$" ||
    fail "$(basename "$1") does not depend on $2"
}
depends "$deb_runtime" 'libc6 \(>= [0-9.~]+\)'
depends "$deb_runtime" 'libstdc\+\+6 \(>= [0-9.~]+\)'
depends "$deb_dev" "$runtime \(= $debver\)"
depends "$deb_tools" "$runtime \(= $debver\)"
[[ -z $(dpkg-deb -f "$deb_wireshark" Depends) ]] || fail "the dissector depends on something"
dpkg-deb --ctrl-tarfile "$deb_runtime" | tar -xO ./shlibs | grep -qx "libapartment $soversion $runtime (>= $debver)" ||
  fail "$runtime has no shlibs entry for libapartment"
if [[ $pyversion != 0 ]]; then
  contains "$deb_python" "lib/python3/dist-packages/apartment/__init__\.py" \
    "lib/python3/dist-packages/apartment/_apartment\.cpython-${pyversion/./}-.*\.so"
  depends "$deb_python" "$runtime \(= $debver\)"
  depends "$deb_python" "python3 \(>= $pyversion~\)"
  depends "$deb_python" "python3 \(<< ${pyversion%.*}\.$((${pyversion#*.} + 1))\)"
fi

root=$work/root
for deb in "$work"/out/*.deb; do dpkg-deb -x "$deb" "$root"; done
echo "== unpacked: env -i $root/usr/bin/apartment version"
env -i "$root/usr/bin/apartment" version || fail "the unpacked tool does not run"
if [[ $pyversion != 0 ]]; then
  # The extension must reach the unpacked libraries by its own run path.
  echo "== unpacked: env -i PYTHONPATH=... python$pyversion -c 'import apartment'"
  env -i PYTHONPATH="$root/usr/lib/python3/dist-packages" "/usr/bin/python$pyversion" -c '
import sys, apartment
print("apartment", apartment.version(), "from", apartment.__file__)
libs = {line.split()[-1] for line in open("/proc/self/maps") if "/libapartment" in line}
assert libs and all(lib.startswith(sys.argv[1] + "/") for lib in libs), libs' "$root" ||
    fail "the unpacked Python module does not load the unpacked library"
fi

# A library built with TLS brings OpenSSL's runtime package along.
if readelf -d "$(find "$root" -name "libapartment.so.$version")" | grep 'NEEDED.*\[libssl\.so' > /dev/null; then
  depends "$deb_runtime" 'libssl3( \(>= [0-9.~a-z]+\))?'
fi

pcdir=$(dirname "$(find "$root" -name apartment.pc)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir apartment)
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$here/host.cpp" -o "$work/host" -Wl,-rpath,"$libdir" \
  $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs apartment) ||
  fail "a host does not build against the unpacked files"
for _ in 1 2 3; do
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  status=0
  env -i timeout 30 "$work/host" "tcp://127.0.0.1:$port" || status=$?
  [[ $status -eq 3 ]] || break
done
[[ $status -eq 0 ]] || fail "the host built against the unpacked files exited with $status"

if command -v lintian > /dev/null; then
  echo "== lintian"
  lintian --fail-on error --suppress-tags-from-file /dev/null "$work"/out/*.deb ||
    fail "lintian reports errors"
else
  echo "lintian is not installed: not run"
fi
echo "package check passed"
