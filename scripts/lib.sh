# What the commands in this directory have in common: the packages, their installation and the build. Sourced, not run.
# shellcheck shell=bash disable=SC2034

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)

# Without recommends: everything that is needed is named.
build_packages=(build-essential meson ninja-build pkg-config libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
    libgstreamer-plugins-bad1.0-dev libcli11-dev nlohmann-json3-dev libtomlplusplus-dev libsystemd-dev libcpp-httplib-dev zlib1g-dev)
# Elements at run time; glib-networking and ca-certificates are what rtsps:// and https:// need.
runtime_packages=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad glib-networking ca-certificates)
sender_packages=(ffmpeg)
# The Python package, and what its example of a recorder needs.
python_packages=(python3 python3-dev python3-cffi python3-av)
# What the tests add: their framework, the servers they play from, decoders and a display to look at, and the analysis tools.
test_packages=(gstreamer1.0-libav gstreamer1.0-x xvfb libx11-dev libavformat-dev libavcodec-dev libavutil-dev
    libgtest-dev libgmock-dev libgstrtspserver-1.0-dev gstreamer1.0-tools gstreamer1.0-rtsp srt-tools nginx-light
    libnginx-mod-rtmp libnginx-mod-stream libfaketime tinyproxy-bin vlc-bin vlc-plugin-base openssl python3-numpy python3-yaml mypy
    procps iproute2 systemd git clang clang-format clang-tidy libclang-rt-dev cppcheck valgrind abigail-tools gcovr gdb shellcheck
    g++-aarch64-linux-gnu libc6-dev-arm64-cross googletest qemu-user 'promtool|prometheus'
    chromium chromium-driver python3-selenium fonts-dejavu-core
    cmake bash-completion fish zsh groff)
all_packages=("${build_packages[@]}" "${runtime_packages[@]}" "${sender_packages[@]}" "${python_packages[@]}"
    "${test_packages[@]}")

note() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }
fail() {
    note "$*"
    exit 1
}

# quietly COMMAND...: silent while it works, everything it said when it does not.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [ "$status" -ne 0 ]; then
        cat "$log" >&2
    fi
    rm -f "$log"
    return "$status"
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        return 127
    fi
}

# missing_packages PACKAGE...: names those that are not installed, one a line. NAME|NAME is what releases call differently.
missing_packages() {
    local installed package names
    read -ra names <<<"${*//|/ }"
    installed=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${names[@]}" 2>/dev/null || true)
    for package; do
        grep -qxE "(${package//+/\\+}) installed" <<<"$installed" || printf '%s\n' "$package"
    done
}

# known_packages PACKAGE...: of NAME|NAME the first one that this release has.
known_packages() {
    local package name
    for package; do
        for name in ${package//|/ }; do
            if [ "$name" = "$package" ] || apt-cache show "$name" >/dev/null 2>&1; then
                printf '%s\n' "$name"
                break
            fi
        done
    done
}

# need_packages PACKAGE...: installs the Debian packages that are missing; asks nothing of the network when none is.
need_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    local by_hand="as root: apt-get update && apt-get install --no-install-recommends ${missing[*]}" names
    command -v apt-get >/dev/null || fail "missing Debian packages, and no apt-get to install them with: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        fail "missing packages, and no sudo; install them $by_hand"
    fi
    note "installing ${missing[*]} (on a fresh machine this takes minutes) ..."
    # The password question of sudo belongs to the terminal, so it is asked before the output is held back.
    as_root true || fail "missing packages, and sudo refuses; install them $by_hand"
    quietly as_root apt-get -qq update || note "the package lists could not be refreshed; trying with those at hand"
    mapfile -t names < <(known_packages "${missing[@]}")
    quietly as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install "${names[@]}" ||
        fail "apt-get could not install ${missing[*]}"
}

# apt_mirrors RELEASE: where apt has this machine's release from, as lines for apt with RELEASE in its place.
apt_mirrors() {
    local own
    own=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    apt-get indextargets --format "deb \$(SITE) \$(CODENAME) main" 'Created-By: Packages' 'Origin: Debian' 'Component: main' |
        sed -n "s/ $own\(-[a-z]*\)\? main\$/ $1\1 main/p" | sort -u
}

# own_mirrors RELEASE: the same on a machine whose package lists may be missing.
own_mirrors() {
    local mirrors
    mirrors=$(apt_mirrors "$1")
    if [ -z "$mirrors" ]; then
        quietly apt-get -qq update || fail 'the package lists could not be refreshed'
        mirrors=$(apt_mirrors "$1")
    fi
    printf '%s\n' "$mirrors" | sed '/^$/d'
}

# own_proxies: the proxies that apt has here, as options for apt.
own_proxies() { apt-config dump | grep -E '^Acquire::[a-z]+::Proxy(::[^ ]*)? ' || true; }

# What clang-format, clang-tidy and cppcheck lay out and find differs with their version: those of Debian 12 decide, and others are not asked.
style_tools_are_pinned() {
    clang-format --version 2>/dev/null | grep -q 'version 14\.' && clang-tidy --version 2>/dev/null | grep -q 'version 14\.' &&
        cppcheck --version 2>/dev/null | grep -qx 'Cppcheck 2\.10'
}

# locked DIRECTORY COMMAND...: two builds in one directory at the same time spoil each other.
locked() {
    local dir=$1 lock status=0
    if ! mkdir -p "$dir" || ! [ -w "$dir" ]; then
        fail "cannot write to $dir; was it made by another user?"
    fi
    exec {lock}>"$dir/.lock"
    flock "$lock"
    "${@:2}" || status=$?
    exec {lock}>&-
    return "$status"
}

# configure DIRECTORY [MESON OPTION...]: sets DIRECTORY (under build/ of the repository) up, unless it is.
configure() { locked "$root/build/$1" configure_unlocked "$root/build/$1" "${@:2}"; }

configure_unlocked() {
    local dir=$1 options=("${@:2}")
    if [ ! -f "$dir/build.ninja" ]; then
        note "configuring build/${dir##*/} ..."
        if [ -f "$dir/meson-private/coredata.dat" ]; then
            options+=(--wipe)
        fi
        quietly meson setup "${options[@]}" "$dir" "$root" || fail "the build could not be configured"
    fi
}

# build_targets DIRECTORY [TARGET...]: brings the targets, or all that are built by default, up to date. The compiler's message is shown.
build_targets() { locked "$root/build/$1" build_unlocked "$root/build/$1" "${@:2}"; }

build_unlocked() {
    if ! ninja -C "$1" -n "${@:2}" 2>/dev/null | grep -q 'no work to do'; then
        note "building build/${1##*/} (the first time takes a minute or two) ..."
        quietly ninja -C "$1" "${@:2}" || fail "the build failed"
    fi
}
