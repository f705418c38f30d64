#!/bin/bash
# ci_example.sh BUILD: builds and tests examples/ci from the installed files of a build tree alone, as root and as an ordinary
# user at the same time.
# ci_example.sh --root ROOT: the same in a root directory in which the packages are installed. Only examples/ci is copied there.
set -euo pipefail
top=$(dirname "$(dirname "$(readlink -f "$0")")")
root=''
[ "$1" != --root ] || root=$(realpath "$2")
# There the example lies directly in /tmp.
stage=$(mktemp -d ${root:+-p "$root/tmp"})
trap 'rm -rf "$stage"' EXIT
seen=${stage#"$root"}
if [ -z "$root" ]; then
  cmake --install "$1" --prefix "$stage/usr" >"$stage/install.log" || { cat "$stage/install.log"; exit 1; }
fi
mkdir "$stage/devices"
chmod -R go+rX "$stage"

# Runs a command where the example is tested. Every user may open these devices on an ordinary system, on some build machines
# only root. The clean root is not entered by chroot alone: after that the kernel lets no program make a namespace of its own.
inside() {  # inside COMMAND...
  if [ "$(id -u)" != 0 ]; then "$@"; return; fi
  # shellcheck disable=SC2016
  unshare --mount bash -ec '
    root=$1 devices=$2
    shift 2
    if [ -n "$root" ]; then
      mount --bind "$root" "$root"
      for dir in dev sys; do mount --rbind "/$dir" "$root/$dir"; done
      mount -t proc proc "$root/proc"
    fi
    mount -t tmpfs devices "$devices"
    mknod -m 666 "$devices/fuse" c 10 229
    mknod -m 666 "$devices/tun" c 10 200
    mount --bind "$devices/fuse" "$root/dev/fuse"
    mount --bind "$devices/tun" "$root/dev/net/tun"
    [ -n "$root" ] || exec "$@"
    cd "$root"
    mount --move . /
    exec chroot . env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"' inside "$root" "$stage/devices" "$@"
}

work() {  # work NAME [WRAPPER...]
  local dir=$stage/$1 options=()
  mkdir "$dir"
  cp -r "$top/examples/ci" "$dir/project"
  chmod 0755 "$dir"
  if [ "$1" = user ]; then chown -R 65534:65534 "$dir"; fi
  # From a build tree the library is found by its prefix; the interpreter is the one that has Debian's pytest.
  if [ -z "$root" ]; then options=(-DCMAKE_PREFIX_PATH="$stage/usr" -DPython3_EXECUTABLE=/usr/bin/python3); fi
  # Programs are built where the project, or a generator for several configurations, wants them.
  case "$1" in
    user) options+=(-DCMAKE_RUNTIME_OUTPUT_DIRECTORY=programs) ;;
    root) [ -n "$root" ] || options+=(-G 'Ninja Multi-Config') ;;
  esac
  # What ctest itself says is left out but for its last lines.
  inside "${@:2}" bash -ec 'dir=$1; shift
    cmake -S "$dir/project" -B "$dir/build" "$@" && cmake --build "$dir/build" &&
    ctest --test-dir "$dir/build" -C Debug -j2 --output-on-failure --no-tests=error
    for test in shell bouncing-input own-scenario pytest; do grep -q "failures=\"0\"" "$dir/build/$test.junit.xml"; done' \
    work "$seen/$1" "${options[@]}" >"$dir.log" 2>&1
}
jobs=()
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER  # their caches need not be open to other users
work root & jobs+=($!)
if [ "$(id -u)" = 0 ]; then
  work user setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/tmp & jobs+=($!)
fi
status=0
for job in "${jobs[@]}"; do wait "$job" || status=1; done
if [ "$status" -ne 0 ]; then tail -n 60 "$stage"/*.log; fi
exit "$status"
