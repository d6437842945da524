#!/usr/bin/env bash
# Builds the library and the `apartment` tool (Release) and runs its demo: a
# responder and a requester process on 127.0.0.1 exchanging requests, a
# notification, raw frames, timer ticks and heartbeats, then the responder
# stops and the offline report appears.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
mkdir -p build
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DAPARTMENT_BUILD_TESTS=OFF \
      > build/release.configure.log 2>&1 || { cat build/release.configure.log; exit 1; }
cmake --build build/release --target apartment_tool > build/release.build.log 2>&1 ||
  { cat build/release.build.log; exit 1; }
exec build/release/tools/apartment/apartment demo
