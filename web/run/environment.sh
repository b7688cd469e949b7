# shellcheck shell=bash
# Sourced by the commands beside this file: runs a script with Node in the environment of the build.

web=$(cd "$(dirname "$(readlink -f "$0")")/.." && pwd)
build=${UVA_BUILD:-$web/../build}
node=$web/node_modules/.bin/node

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# share TEXT: if it is a path in /tmp, of what is there or will be, it is let into the box.
shared=()
share() {
    case $(readlink -f -- "$1") in /tmp/* | /dev/shm/*) shared+=(--share "$1") ;; esac
}

# in_box OPTIONS -- SCRIPT ARGS: in a box of its own (docs/reference/tvbox.md), unless this is one.
in_box() {
    [ -x "$node" ] || fail "the npm packages are missing: run (cd $web && npm ci), or ./play --web, which does"
    [ -n "${TVBOX-}" ] || [ -f "$build/build.ninja" ] || fail "$build is no build folder: run ./play --web first, or name one with UVA_BUILD"
    local options=()
    share "$web"
    share "$build"
    [ -z "${UVA_TIMELINE-}" ] || share "$UVA_TIMELINE"
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    export UVA_NATIVE=${UVA_NATIVE:-$build/web/native/uva_native.node}
    export NODE_COMPILE_CACHE=${NODE_COMPILE_CACHE:-$build/web/node-compile-cache}
    if [ -n "${TVBOX-}" ]; then
        exec "$node" "$web/run/$1" "${@:2}"
    fi
    exec meson devenv -C "$build" --workdir "$PWD" "$build/tools/tvbox/tvbox" ${shared[@]+"${shared[@]}"} \
        ${options[@]+"${options[@]}"} -- "$node" "$web/run/$1" "${@:2}"
}
