#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the test suite need, when
# any is missing. Needs root (or sudo) only when something must be installed.
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
for pkg in cmake ninja-build g++ clang libclang-rt-14-dev googletest libgtest-dev \
           libgmock-dev libbenchmark-dev pkgconf python3 valgrind \
           libssl-dev openssl dpkg-dev file lintian man-db \
           python3-dev pybind11-dev python3-pytest tshark; do
  have_pkg "$pkg" || need+=("$pkg")
done
[ ${#need[@]} -eq 0 ] && exit 0

echo "installing: ${need[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
$SUDO apt-get update -qq
# tshark asks whether non-root users may capture; the tests read files only.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
