#!/bin/bash
# guides.sh BUILD: installs the library from a build tree into a directory, and works through the guides with it in a gateway.
set -euo pipefail
top=$(dirname "$(dirname "$(readlink -f "$0")")")
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cmake --install "$1" --prefix "$stage/usr" >"$stage/install.log" || { cat "$stage/install.log"; exit 1; }
cp "$top/tests/guides.py" "$stage"
cp -r "$top/docs/guides" "$stage"
"$top/scripts/demo" --build "$1" --with-directory --run "$stage/guides.py" /program/guides/{costs,debugging,first-daemon,locks,loops,porting,reporting,scripts,testing,upgrading}.md
