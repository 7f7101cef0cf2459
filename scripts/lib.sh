# shellcheck shell=bash
# What scripts/demo, scripts/test and scripts/test-armhf share: the packages that debian/control names, building a preset
# and testing some.
# Sourced by bash with "set -euo pipefail"; a function that fails says why on standard error.

sourceFolder=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly sourceFolder

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# The packages of Build-Depends, one a line. Versions, profiles and further alternatives are left out: a fresh
# machine has no dpkg-dev to weigh them, and the release that this is built for satisfies them all. debhelper
# only makes the package; building and testing does without it.
required_packages() {
    awk '/^#/ { next }
       /^[^ \t]/ { inside = /^Build-Depends:/; sub(/^Build-Depends:/, "") }
       inside' "$sourceFolder/debian/control" |
        tr ',' '\n' | sed -E 's/[[(<|:].*//; s/[[:space:]]//g' | grep -vE '^(debhelper.*)?$'
}

missing_packages() {
    local package
    for package in $(required_packages); do
        # shellcheck disable=SC2016
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || echo "$package"
    done
}

# Root gets what is missing installed; anybody else is told the one command that does it.
install_packages() {
    local -a missing
    mapfile -t missing < <(missing_packages)
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
test_preset() {
    local results=$sourceFolder/build/$1/test-results
    rm -rf "$results"
    mkdir "$results"
    # Most tests wait most of the time.
    ctest --test-dir "$sourceFolder/build/$1" --parallel "$((2 * $(nproc)))" --output-on-failure --no-tests=error \
        --output-junit "$results/ctest.xml" </dev/null || echo "${0##*/}: the tests of preset $1 failed" >&2
}

# test_presets PRESET...: builds and tests each, and ends with a count for each and for all of them; the status is 0
# only if every test ran and passed.
test_presets() {
    local preset
    install_packages
    if [[ " $*" == *" armhf"* ]]; then
        "$sourceFolder/scripts/armhf-sysroot"
    fi
    for preset in "$@"; do
        build_preset "$preset"
        test_preset "$preset"
    done
    /usr/bin/python3 -B "$sourceFolder/scripts/test_summary.py" "$sourceFolder/build" "$@"
}
