# Shared by the scripts of this folder; source it. Works as root, through sudo, and for an ordinary
# user whose machine has everything installed already.
# The lists of packages at the end are for those that source it:
# shellcheck shell=sh disable=SC2034

set -eu
cd "$(dirname "$0")/.."

jobs=$(nproc)
work=$(mktemp -d)
children=""

say() { printf '%s\n' "$*"; }
fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# Ends what was started, by id, and removes what was written.
clean_up() {
    status=$?
    for pid in $children; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in $children; do
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
    exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Runs a command in silence; shows what it said only when it fails.
quietly() {
    if ! "$@" >"$work/log" 2>&1 </dev/null; then
        cat "$work/log" >&2
        fail "failed: $*"
    fi
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo -n "$@"
    fi
}

# Installs the Debian packages among the arguments that are missing. An index that can't be
# refreshed is no failure as long as the packages can be had.
need_packages() {
    missing=""
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    say "Installing$missing"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q update >"$work/update" 2>&1 </dev/null ||
        say "note: the package index could not be refreshed; going on with what is known"
    # shellcheck disable=SC2086
    quietly as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -y --no-install-recommends install $missing
}

# Lets packages of another architecture be installed beside the host's.
need_architecture() {
    dpkg --print-foreign-architectures | grep -qx "$1" || as_root dpkg --add-architecture "$1"
}

# Runs a command until it succeeds, for some thirty seconds at most.
await() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 600 ] || fail "gave up waiting for: $*"
        sleep 0.05
    done
}

# Configures and builds a preset: everything, or the targets named.
build() {
    preset=$1
    shift
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"}
}

passed=0 failed=0 skipped=0

# The value of an attribute of the first testsuite element of a JUnit file.
attribute() { sed -n "s/.*<testsuite.*[[:space:]]$1=\"\([0-9]*\)\".*/\1/p; /<testcase/q" "$2"; }

# Runs the tests of a preset, or those that match a pattern, and adds up what they came to.
run_tests() {
    say "== $1"
    results=$PWD/build/$1/results.xml
    rm -f "$results"
    ctest --preset "$1" -R "${2:-.}" -j "$jobs" --timeout 300 --output-junit "$results" \
        >"$work/ctest" 2>&1 </dev/null || true
    [ -s "$results" ] || { cat "$work/ctest" >&2; fail "ctest did not run for $1"; }
    tr '\n' ' ' <"$results" | sed 's/<testcase/\n<testcase/' >"$work/junit"
    total=$(attribute tests "$work/junit")
    bad=$(attribute failures "$work/junit")
    off=$(attribute skipped "$work/junit")
    [ "$total" -gt 0 ] || fail "no test was found for $1"
    if [ "$bad" -gt 0 ]; then
        cat "$work/ctest" >&2
    fi
    # A test that was skipped says why on the line behind its place.
    awk -F '"' '/<testcase/ { name = $2 }
        /: Skipped$/ { getline why; print "SKIPPED: " name ": " why }' "$results"
    passed=$((passed + total - bad - off))
    failed=$((failed + bad))
    skipped=$((skipped + off))
}

# The closing line; fails when a test did.
report() {
    if [ "$skipped" -gt 0 ]; then
        say "$passed passed, $failed failed, $skipped skipped"
    else
        say "$passed passed, $failed failed"
    fi
    [ "$failed" -eq 0 ]
}

build_packages="g++ cmake make pkg-config libcjson-dev libcli11-dev libbdd-dev libedit-dev libpcap-dev"
manual_packages="man-db groff-base mandoc"
arm_packages="g++-arm-linux-gnueabihf libcjson-dev:armhf libedit2:armhf libstdc++6:armhf googletest qemu-user"
lint_packages="clang-tidy-14 clang-format-14 cppcheck"
test_packages="libgtest-dev clang libclang-rt-14-dev iproute2 $manual_packages"
