#!/usr/bin/env bash
# Sets everything up, builds, and starts the Keldra GUI with the toolbar icons of this repository, on
# the bundled sample picture and its scribbles, or on the files given (IMAGE [LAYER]).
#   scripts/run.sh                 on a desktop session (DISPLAY set)
#   xvfb-run -a scripts/run.sh     without a display, on a virtual X server (nothing to see; for a check)
# KELDRA_BUILD names another build folder (default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KELDRA_BUILD:-$root/build}
"$root/scripts/setup.sh" "$build" Release
echo "Keldra is built in $build."

if [ -z "${DISPLAY:-}" ]; then
  cat >&2 <<MSG
run: no display (DISPLAY is not set), so the Keldra window cannot be shown.
  Run this command from a desktop session, or log in with X forwarding (ssh -X), or start it on a
  virtual X server to check that it starts:  xvfb-run -a scripts/run.sh
  The program itself is $build/app/keldra (set ICON_DIR=$root/icons for its toolbar icons).
MSG
  exit 2
fi

# The program looks its toolbar icons up in ICON_DIR (the working folder when unset).
export ICON_DIR="$root/icons"
if [ $# -eq 0 ]; then
  set -- "$root/samples/pompom.jpg" "$root/samples/pompom-scribbles.png"
fi
exec "$build/app/keldra" "$@"
