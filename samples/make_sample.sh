#!/usr/bin/env bash
# Rebuilds the bundled sample picture and its scribble layer from make_sample.cpp.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
g++ -O2 -Wall -Wextra "$here/make_sample.cpp" $(pkg-config --cflags --libs cairo gdk-pixbuf-2.0) -o "$tmp/make_sample"
"$tmp/make_sample" "$here/pompom.jpg" "$here/pompom-scribbles.png"
