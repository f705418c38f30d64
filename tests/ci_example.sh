#!/bin/bash
# ci_example.sh BUILD: builds and tests examples/ci from the installed files of a build tree alone, as root and as an ordinary
# user at the same time.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cmake --install "$1" --prefix "$stage/usr" >"$stage/install.log" || { cat "$stage/install.log"; exit 1; }
chmod -R go+rX "$stage"

work() {  # work NAME [WRAPPER...]
  local dir=$stage/$1
  mkdir "$dir"
  cp -r "$top/examples/ci" "$dir/project"
  chmod 0755 "$dir"
  if [ "$1" = user ]; then chown -R 65534:65534 "$dir"; fi
  # What ctest itself says is left out but for its last lines.
  "${@:2}" bash -ec 'cmake -S "$1/project" -B "$1/build" -DCMAKE_PREFIX_PATH="$2" -DPython3_EXECUTABLE=/usr/bin/python3 && cmake --build "$1/build" &&
    ctest --test-dir "$1/build" --output-on-failure --no-tests=error && test -s "$1/build/shell.junit.xml"' \
    work "$dir" "$stage/usr" >"$dir.log" 2>&1
}
jobs=()
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER  # their caches need not be open to other users
work root & jobs+=($!)
# Every user may open these devices on an ordinary system, on some build machines only root.
open_devices='mkdir "$1/dev"; mount -t tmpfs dev "$1/dev"; mknod -m 666 "$1/dev/fuse" c 10 229; mknod -m 666 "$1/dev/tun" c 10 200
  mount --bind "$1/dev/fuse" /dev/fuse; mount --bind "$1/dev/tun" /dev/net/tun; shift; exec "$@"'
if [ "$(id -u)" = 0 ]; then
  work user unshare --mount bash -ec "$open_devices" devices "$stage" setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/tmp & jobs+=($!)
fi
status=0
for job in "${jobs[@]}"; do wait "$job" || status=1; done
if [ "$status" -ne 0 ]; then tail -n 60 "$stage"/*.log; fi
exit "$status"
