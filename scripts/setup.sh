#!/usr/bin/env bash
# Installs the Debian packages Keldra needs to build, test and run, then configures and builds.
# Idempotent: packages already present are not fetched again.
#   scripts/setup.sh [BUILD_DIR] [CMAKE_BUILD_TYPE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
type=${2:-Release}

packages=(g++ cmake make pkg-config libgtk2.0-dev libsuitesparse-dev libopenblas0-pthread
          libgtest-dev libgmock-dev libbenchmark-dev xvfb xauth imagemagick clang-format clang-14 libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="$type" >/dev/null
cmake --build "$build" -j"$(nproc)"
