# shellcheck shell=bash
# What the scripts share: the packages that debian/control names, building a preset and testing some, and a fresh system
# for what would change this one.
# Sourced by bash with "set -euo pipefail"; a function that fails says why on standard error.

sourceFolder=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly sourceFolder

# Where packages for another architecture come from: the main suite alone. What is fixed in others makes no difference
# here, and a library that two architectures share has to be of the same version for both.
readonly mirror=${HALVEK_DEBIAN_MIRROR:-http://deb.debian.org/debian}
readonly suite=bookworm

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# required_packages [armhf]: the packages of Build-Depends, one a line; those that only building for armhf takes, which are
# marked [!armhf] since nobody takes them there, only if they are asked for. Versions, profiles and further alternatives
# are left out: a fresh machine has no dpkg-dev to weigh them, and the release that this is built for satisfies them all.
# debhelper only makes the package; building and testing does without it.
required_packages() {
    local leaveOut='/\[!armhf\]/d;'
    [[ ${1-} != armhf ]] || leaveOut=
    awk '/^#/ { next }
       /^[^ \t]/ { inside = /^Build-Depends:/; sub(/^Build-Depends:/, "") }
       inside' "$sourceFolder/debian/control" |
        tr ',' '\n' | sed -E "$leaveOut"' s/[[(<|:].*//; s/[[:space:]]//g' | grep -vE '^(debhelper.*)?$'
}

# missing_packages [armhf]
missing_packages() {
    local package
    for package in $(required_packages "$@"); do
        # shellcheck disable=SC2016
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || echo "$package"
    done
}

# install_packages [armhf]: root gets what is missing installed; anybody else is told the one command that does it.
install_packages() {
    local -a missing
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} > 0)) || return 0
    local -a install=(apt-get install -y --no-install-recommends "${missing[@]}")
    if ((EUID != 0)); then
        printf '%s: packages are missing. Run this once as root, then start again:\n\n' "${0##*/}" >&2
        printf "  sh -c 'apt-get update && %s'\n\n" "${install[*]}" >&2
        exit 1
    fi
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get -qq update </dev/null || fail "apt-get update failed"
    "${install[@]}" -qq </dev/null || fail "cannot install: ${missing[*]}"
}

# build_preset PRESET [TARGET]...: configures build/PRESET and builds the targets, or everything.
build_preset() {
    local preset=$1
    (
        cd "$sourceFolder"
        cmake --preset "$preset" &&
            cmake --build --preset "$preset" --parallel "$(nproc)" ${2:+--target "${@:2}"}
    ) </dev/null || fail "cannot build the preset $preset"
}

# The results are what counts afterwards: a preset whose tests fail does not keep the others from running.
test_boot() {
    rm -rf "$sourceFolder/build/boot/test-results"
    "$sourceFolder/scripts/test-boot" || echo "${0##*/}: the test of the packages failed" >&2
}

test_preset() {
    local results=$sourceFolder/build/$1/test-results
    rm -rf "$results"
    mkdir "$results"
    # Most tests wait most of the time.
    ctest --test-dir "$sourceFolder/build/$1" --parallel "$((2 * $(nproc)))" --output-on-failure --no-tests=error \
        --output-junit "$results/ctest.xml" </dev/null || echo "${0##*/}: the tests of preset $1 failed" >&2
}

# test_presets PRESET...: builds and tests each, and ends with a count for each and for all of them; the status is 0
# only if every test ran and passed. "boot" stands for the packages on a machine of their own, which only root can boot.
test_presets() {
    local preset
    install_packages
    if [[ " $*" == *" armhf"* ]]; then
        "$sourceFolder/scripts/armhf-sysroot"
    fi
    for preset in "$@"; do
        if [[ $preset == boot ]]; then
            test_boot
        else
            build_preset "$preset"
            test_preset "$preset"
        fi
    done
    /usr/bin/python3 -B "$sourceFolder/scripts/test_summary.py" "$sourceFolder/build" "$@"
}

# make_fresh_system FOLDER: FOLDER/root becomes a minimal Debian in memory that takes packages for armhf beside its own. Only
# root can make one, in a mount namespace that takes it along when it ends.
make_fresh_system() {
    local root=$1/root
    (cd "$1" && apt-get -qq -o APT::Sandbox::User=root download debootstrap && dpkg -x debootstrap_*.deb debootstrap)
    mkdir "$root"
    mount -n -t tmpfs -o mode=755 tmpfs "$root"
    DEBOOTSTRAP_DIR=$1/debootstrap/usr/share/debootstrap "$1/debootstrap/usr/sbin/debootstrap" \
        --variant=minbase "$suite" "$root" "$mirror"
    rm -rf "$1"/debootstrap*
    mount -n -t proc proc "$root/proc"
    # Nothing is started in there.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod +x "$root/usr/sbin/policy-rc.d"
    in_fresh_system "$1" 'dpkg --add-architecture armhf; apt_get update'
}

# in_fresh_system FOLDER COMMANDS: runs shell commands there; apt_get is one of them.
in_fresh_system() {
    DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 chroot "$1/root" bash -euc "
        apt_get() { apt-get -qq -y -o APT::Sandbox::User=root --no-install-recommends \"\$@\"; }
        $2"
}
