# shellcheck shell=bash
# Sourced by the commands beside this file: runs a script with Node, in the environment of the build or,
# where the add-on is beside them, as it is installed.

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

web=$(cd "$(dirname "$(readlink -f "$0")")/.." && pwd)
node=$web/node_modules/.bin/node
if [ -f "$web/native/uva_native.node" ]; then
    tool() { echo "$1"; }
    state=${XDG_STATE_HOME:-${HOME:+$HOME/.local/state}}
    logs=$state/uva-web
    if [ -z "$state" ] || ! mkdir -p "$logs"; then
        fail "there is no place for the log: name a folder that can be written with XDG_STATE_HOME"
    fi
    cache=${XDG_CACHE_HOME:-${HOME:-$state}/.cache}/uva-web
    native=$web/native/uva_native.node
    within=()
    [ -x "$node" ] || node=$(command -v node || :)
else
    build=${UVA_BUILD:-$web/../build}
    tool() { echo "$build/tools/$1/$1"; }
    logs=$build
    cache=$build/web/node-compile-cache
    native=$build/web/native/uva_native.node
    within=(meson devenv -C "$build" --workdir "$PWD")
fi
UVA_WEB_COMMAND=$(basename "$0")
export UVA_WEB_COMMAND

# share TEXT: if it is a path in /tmp, of what is there or will be, it is let into the box.
shared=()
share() {
    case $(readlink -f -- "$1") in /tmp/* | /dev/shm/*) shared+=(--share "$1") ;; esac
}

# in_box OPTIONS -- SCRIPT ARGS: in a box of its own (docs/reference/tvbox.md), unless this is one.
in_box() {
    [ -x "$node" ] || fail "the npm packages are missing: run (cd $web && npm ci), or ./play --web, which does"
    [ -n "${TVBOX-}" ] || [ -z "${build-}" ] || [ -f "$build/build.ninja" ] || fail "$build is no build folder: run ./play --web first, or name one with UVA_BUILD"
    local options=()
    share "$web"
    share "$logs"
    [ -z "${UVA_TIMELINE-}" ] || share "$UVA_TIMELINE"
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    export UVA_NATIVE=${UVA_NATIVE:-$native}
    export NODE_COMPILE_CACHE=${NODE_COMPILE_CACHE:-$cache}
    if [ -n "${TVBOX-}" ]; then
        exec "$node" "$web/run/$1" "${@:2}"
    fi
    exec ${within[@]+"${within[@]}"} "$(tool tvbox)" ${shared[@]+"${shared[@]}"} \
        ${options[@]+"${options[@]}"} -- "$node" "$web/run/$1" "${@:2}"
}
