#!/usr/bin/env bash
# Sets everything up, builds, and runs every test through CTest.
#   scripts/test.sh            the normal build (build/)
#   KELDRA_SANITIZE=1 scripts/test.sh   AddressSanitizer + UBSan build (build-asan/)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "${KELDRA_SANITIZE:-0}" = 1 ]; then
  build=$root/build-asan
  "$root/scripts/setup.sh" "$build" Debug
  cmake -S "$root" -B "$build" -DKELDRA_SANITIZE=ON >/dev/null
  cmake --build "$build" -j"$(nproc)"
else
  build=$root/build
  "$root/scripts/setup.sh" "$build" RelWithDebInfo
fi
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 900
