# shellcheck shell=bash
# Shared by ./play and ./check, sourced behind setup.sh: what web players need. npm's packages stand
# in web/node_modules; web/package-lock.json says which, and has their checksums.

# The packages are those of the lock file.
have_web() {
    [ -x web/node_modules/.bin/node ] && cmp -s web/package-lock.json web/node_modules/.lock-installed
}

# Says on standard error why it cannot be done, and fails.
install_web() {
    ! have_web || return 0
    if ! command -v npm >/dev/null; then
        if [ "$(id -u)" -ne 0 ]; then
            echo "npm is missing; install it with: sudo apt-get install -y --no-install-recommends npm" >&2
            return 1
        fi
        (export DEBIAN_FRONTEND=noninteractive
            quietly "updating the package lists" apt-get update
            quietly "installing npm" apt-get install -y --no-install-recommends npm) || return 1
    fi
    (cd web && quietly "installing the web players and Node from npm (once)" npm ci) || {
        echo "the npm packages cannot be installed: a network with npm's registry is needed, once" >&2
        return 1
    }
    cp web/package-lock.json web/node_modules/.lock-installed
}

# configure_web DIR: a build folder that was configured without the packages learns of them.
configure_web() {
    have_web || return 0
    grep -qs uva_native "$1/build.ninja" || quietly "configuring $1 for web players" meson setup --reconfigure "$1"
}

# play_web PLAYER URL...: does not come back.
play_web() {
    install_web || fail "--web needs npm's packages; everything else plays without them"
    configure build
    configure_web build
    build build player web
    local player=$PWD/web/run/player
    cd "${start:?}" || exit
    exec "$player" "$@"
}
