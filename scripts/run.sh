#!/usr/bin/env bash
# Sets everything up, builds, and runs the main job.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" "$root/build" Release
echo "Keldra is built in $root/build."
