# Shared by ./play and ./check, sourced from the top of the tree: they have the folder build in common.

fail() {
    echo "$0: $*" >&2
    exit 1
}

# Says what goes on, on a terminal; shows what a command printed only when it fails.
quietly() {
    local what=$1 log status=0
    shift
    [ ! -t 1 ] || echo "== $what"
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    [ "$status" -eq 0 ] || fail "$what failed; see above"
}

# missing_packages [PACKAGE]...: of those every build needs, and of these.
missing_packages() {
    local wanted
    wanted=$({ cat tools/setup/packages.txt; printf '%s\n' "$@"; } | grep '^[^#]')
    # shellcheck disable=SC2086 # a list of words
    grep -vxF -f <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' $wanted 2>/dev/null | sed -n 's/ installed$//p') \
        <<<"$wanted" || true # none is missing
}

# install_packages [PACKAGE]...
install_packages() {
    local missing
    command -v dpkg-query >/dev/null || fail "this is not Debian: install what tools/setup/packages.txt lists"
    missing=$(missing_packages "$@" | tr '\n' ' ')
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        fail "packages are missing. Install them with this command, then try again:
  sudo sh -c 'apt-get update && apt-get install -y --no-install-recommends ${missing% }'"
    fi
    export DEBIAN_FRONTEND=noninteractive
    quietly "updating the package lists" apt-get update
    # shellcheck disable=SC2086 # a list of words
    quietly "installing ${missing% }" apt-get install -y --no-install-recommends $missing
}

# configure DIR [-Dname=value | --cross-file=FILE]...: only what is not set already, so that a second run is quick.
configure() {
    local dir=$1 option new=()
    shift
    if [ ! -f "$dir/build.ninja" ]; then
        quietly "configuring $dir" meson setup "$dir" "$@"
        return
    fi
    for option; do
        case $option in -D*) option=${option#-D} ;; *) continue ;; esac # a cross file is for good
        grep -qxF "${option%%=*} = ${option#*=}" "$dir/meson-private/cmd_line.txt" || new+=("-D$option")
    done
    [ ${#new[@]} -eq 0 ] || quietly "configuring $dir" meson configure "$dir" "${new[@]}"
}

# build DIR [TARGET]...: these, else all.
build() {
    local dir=$1
    shift
    if [ -t 1 ]; then
        ninja -C "$dir" "$@" || fail "building failed; see above"
    else
        quietly "building $dir" ninja -C "$dir" "$@"
    fi
}
