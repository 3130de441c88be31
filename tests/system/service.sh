# A broker and a daemon of a test's own, for tests that are scripts; source it with `build` set to
# the build folder. Everything is kept in "$work" and ended, by its id, when the script ends.
# shellcheck shell=sh disable=SC2154,SC2034

started_in=$PWD
# shellcheck source=scripts/common.sh
. "$(dirname "$0")/../../scripts/common.sh"
cd "$started_in"

# Ends the test as one that could not run here.
skip() {
    echo "$(basename "$0"): Skipped"
    echo "$*"
    exit 77
}

# The terminal files' folder stands for /run/ipacl: only its owner may write there.
chmod 0755 "$work"
mkdir -m 0755 "$work/terminals"
export UBUS_SOCKET="$work/bus.sock" IPACL_VTY_DIR="$work/terminals"

# Makes the program $1 one that can be called as $2, where the build is for another machine:
# $EMULATOR starts it.
emulated() {
    printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$EMULATOR" "$1" >"$2"
    chmod +x "$2"
}

programs=$build/bin
if [ -n "${EMULATOR:-}" ]; then
    programs=$work/programs
    mkdir "$programs"
    for program in "$build"/bin/*; do
        emulated "$program" "$programs/$(basename "$program")"
    done
fi
PATH=$programs:$PATH

start_broker() {
    ipacl-busd &
    children="$children $!"
    await test -S "$UBUS_SOCKET"
}

start_daemon() {
    ipacl >"$work/daemon.out" &
    children="$children $!"
    await ipaclctl running-config
}
