# shellcheck shell=bash
# What the scripts share: the packages that debian/control names, building a preset and testing some, and a fresh system
# for what would change this one. What installing and building print goes to a file, so that what matters stays in
# sight.
# Sourced by bash with "set -euo pipefail"; a function that fails says why on standard error.

sourceFolder=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly sourceFolder
readonly installLog=$sourceFolder/build/install.log

# Where packages for another architecture come from: the main suite alone. What is fixed in others makes no difference
# here, and a library that two architectures share has to be of the same version for both.
readonly mirror=${HALVEK_DEBIAN_MIRROR:-http://deb.debian.org/debian}
readonly suite=bookworm

# print_usage_if_asked_for USAGE [ARGUMENT]: ends the script if the argument is --help.
print_usage_if_asked_for() {
    [[ ${2-} == --help || ${2-} == -h ]] || return 0
    printf '%s\n' "$1"
    exit 0
}

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# required_packages [armhf]: what building, testing and packaging take, one package per line: those of Build-Depends,
# what every Debian package is built with, which is not named there, and what looks at the packages. Those that are
# marked [!armhf], since nobody takes them there, are only named if they are asked for. Versions, profiles and further
# alternatives are left out: a fresh machine has no dpkg-dev to weigh them, and the release that this is built for
# satisfies them all.
required_packages() {
    local leaveOut='/\[!armhf\]/d;'
    [[ ${1-} != armhf ]] || leaveOut=
    awk '/^#/ { next }
       /^[^ \t]/ { inside = /^Build-Depends:/; sub(/^Build-Depends:/, "") }
       inside' "$sourceFolder/debian/control" |
        tr ',' '\n' |
        sed -E "$leaveOut"' s/^[[:space:]]*debhelper-compat/debhelper/; s/[[(<|:].*//; s/[[:space:]]//g; /^$/d'
    printf '%s\n' build-essential lintian
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
    echo "Installing ${#missing[@]} packages (what apt-get says goes to ${installLog#"$sourceFolder"/}): ${missing[*]}"
    mkdir -p "${installLog%/*}"
    {
        export DEBIAN_FRONTEND=noninteractive
        apt-get -qq update && "${install[@]}" -qq
    } </dev/null >"$installLog" 2>&1 || {
        tail -n 20 "$installLog" >&2
        fail "cannot install: ${missing[*]}"
    }
}

# show_progress: copies nothing of what a build prints but how far it is: one line that is overwritten on a terminal,
# else a line per quarter.
show_progress() {
    local line quarter=0
    while IFS= read -r line; do
        [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
        local -i done=${BASH_REMATCH[1]} all=${BASH_REMATCH[2]}
        if [[ -t 1 ]]; then
            printf '\r  step %d of %d' "$done" "$all"
            ((done < all)) || echo
        elif ((4 * done / all > quarter)); then
            quarter=$((4 * done / all))
            printf '  step %d of %d\n' "$done" "$all"
        fi
    done
}

# build_preset PRESET [TARGET]...: configures build/PRESET and builds the targets, or everything.
build_preset() {
    local preset=$1 log=$sourceFolder/build/$1.log
    mkdir -p "$sourceFolder/build"
    echo "Building the preset $preset (what the compiler says goes to ${log#"$sourceFolder"/})"
    (
        cd "$sourceFolder"
        cmake --preset "$preset" &&
            cmake --build --preset "$preset" --parallel "$(nproc)" ${2:+--target "${@:2}"}
    ) </dev/null 2>&1 | tee "$log" | show_progress || {
        { grep -A 40 -m 1 '^FAILED:' "$log" || tail -n 40 "$log"; } >&2
        fail "cannot build the preset $preset"
    }
}

# The results are what counts afterwards: a preset whose tests fail does not keep the others from running.
test_boot() {
    local built=()
    ! is_built_ahead boot || built=("$sourceFolder/build/packages")
    rm -rf "$sourceFolder/build/boot/test-results"
    "$sourceFolder/scripts/test-boot" "${built[@]}" || echo "${0##*/}: the test of the packages failed" >&2
}

# The long form; the short one is among the tests of each preset.
test_torture() {
    local results=$sourceFolder/build/torture/test-results
    rm -rf "$results"
    mkdir -p "$results"
    "$sourceFolder/scripts/torture" --results "$results/ctest.xml" </dev/null ||
        echo "${0##*/}: the torture failed" >&2
}

# test_command NAME COMMAND [ARGUMENT]...: a command that counts as one test, in build/NAME.
test_command() {
    local name=$1 results=$sourceFolder/build/$1/test-results status=run
    rm -rf "$results"
    mkdir -p "$results"
    "${@:2}" </dev/null 2>&1 | tee "$results/said.txt" || status=fail
    {
        printf '<testsuite><testcase name="%s" status="%s"><system-out>' "$name" "$status"
        sed 's/&/\&amp;/g; s/</\&lt;/g; s/[^[:print:]\t]/?/g' "$results/said.txt"
        printf '</system-out></testcase></testsuite>\n'
    } >"$results/ctest.xml"
}

test_preset() {
    local results=$sourceFolder/build/$1/test-results
    rm -rf "$results"
    mkdir "$results"
    # Most tests wait most of the time.
    ctest --test-dir "$sourceFolder/build/$1" --parallel "$((2 * $(nproc)))" --output-on-failure --no-tests=error \
        --output-junit "$results/ctest.xml" </dev/null || echo "${0##*/}: the tests of preset $1 failed" >&2
}

# build_ahead PRESET...: builds these, one after the other, at the lowest priority, beside the tests of those before
# them, which leave a third of the processors' time unused. What comes of it is seen when the turn of each has come.
build_ahead() {
    rm -f "$sourceFolder"/build/*.ahead
    setsid bash -euo pipefail -c '. "$1/scripts/lib.sh" && build_in_turn "${@:2}"' "$0" "$sourceFolder" "$@" \
        </dev/null >/dev/null 2>&1 &
    builtAhead=$!
}

# give_way NICENESS: of this session. Sessions share the processors; only within one does the priority count. Of all
# ordinary users together the system takes ten such wishes a second.
give_way() {
    renice "$1" "$$"
    [[ ! -w /proc/self/autogroup ]] || echo "$1" >/proc/self/autogroup || true
}

build_in_turn() {
    local preset status
    give_way 19
    for preset in "$@"; do
        status=0
        case $preset in
            boot) build_boot_packages || status=$? ;;
            asan | tsan | armhf) (build_preset "$preset") || status=$? ;;
            *) continue ;;
        esac
        echo "$status" >"$sourceFolder/build/$preset.ahead"
    done
}

# Nobody looks at this build with a debugger, and what one would need takes a third of its time.
build_boot_packages() {
    DEB_BUILD_OPTIONS=noautodbgsym DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g \
        "$sourceFolder/scripts/build-packages" "$@"
}

# is_built_ahead PRESET: waits until its turn in what is built ahead is over; the status is 0 if it was built.
is_built_ahead() {
    local outcome=$sourceFolder/build/$1.ahead
    [[ -n ${builtAhead-} ]] || return 1
    until [[ -s $outcome ]]; do
        [[ -e /proc/$builtAhead ]] || return 1
        sleep 1
    done
    [[ $(<"$outcome") == 0 ]]
}

# begin_faults: ten minutes of scripts/mqtt-faults beside the tests of the presets that follow. It waits nearly all of
# the time, and asks for no speed.
begin_faults() {
    setsid bash -euo pipefail -c '. "$1/scripts/lib.sh" && test_faults' "$0" "$sourceFolder" \
        </dev/null >/dev/null 2>&1 &
    faults=$!
}

test_faults() {
    give_way 10
    # In the foreground: what ends this session has to reach it.
    test_command faults timeout --foreground 30m "$sourceFolder/scripts/mqtt-faults" --mosquitto --faults 0.3
}

wait_for_faults() {
    [[ -n ${faults-} ]] || return 0
    echo "Waiting for the end of the faults (what they bring is said with the counts)"
    wait "$faults" || true
    faults=
}

# What runs beside the tests is a session of its own, which no Ctrl-C reaches.
end_what_runs_beside() {
    local session
    for session in ${builtAhead-} ${faults-}; do
        kill -- "-$session" 2>/dev/null || true
    done
}

# test_presets PRESET...: builds and tests each, and ends with a count for each and for all of them; the status is 0
# only if every test ran and passed. "boot" stands for the packages on a machine of their own, which only root can boot,
# "torture" for the long form of scripts/torture, "lint" and "fuzz" for these scripts, "faults" for scripts/mqtt-faults,
# which runs beside those that follow.
test_presets() {
    local preset
    local -a presets=("$@")
    install_packages
    if [[ " $*" == *" armhf"* ]]; then
        "$sourceFolder/scripts/armhf-sysroot"
    fi
    trap end_what_runs_beside EXIT
    for preset in "$@"; do
        shift
        case $preset in
            boot | torture) "test_$preset" ;;
            lint) test_command lint "$sourceFolder/scripts/lint" --joined ;;
            fuzz) test_command fuzz "$sourceFolder/scripts/fuzz" --daemon ;;
            faults) begin_faults ;;
            *)
                is_built_ahead "$preset" || true
                build_preset "$preset"
                [[ -n ${builtAhead-} ]] || build_ahead "$@"
                test_preset "$preset"
                ;;
        esac
    done
    wait_for_faults
    /usr/bin/python3 -B "$sourceFolder/scripts/test_summary.py" "$sourceFolder/build" "${presets[@]}"
}

# make_fresh_system FOLDER: FOLDER/root becomes a minimal Debian in memory that takes packages for armhf beside its own.
# Only root can make one, in a mount namespace that takes it along when it ends.
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
