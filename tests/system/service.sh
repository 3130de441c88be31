# A broker and a daemon of a test's own, for tests that are scripts; source it with `build` set to
# the build folder. Everything is kept in "$scratch" and ended, by its id, when the script ends.
# shellcheck shell=sh disable=SC2154,SC2034

scratch=$(mktemp -d)
pids=""

end_service() {
    status=$?
    for pid in $pids; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in $pids; do
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$scratch"
    exit "$status"
}
trap end_service EXIT
trap 'exit 143' INT TERM

# Ends the test as one that could not run here.
skip() {
    echo "$(basename "$0"): Skipped"
    echo "$*"
    exit 77
}

fail() {
    echo "$*"
    exit 1
}

# Runs a command until it succeeds, for some thirty seconds at most.
await() {
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 600 ] || fail "waited in vain for: $*"
        sleep 0.05
    done
}

# The terminal files' folder stands for /run/ipacl: only its owner may write there.
chmod 0755 "$scratch"
mkdir -m 0755 "$scratch/terminals"
export UBUS_SOCKET="$scratch/bus.sock" IPACL_VTY_DIR="$scratch/terminals"
PATH=$build/bin:$PATH

start_broker() {
    ipacl-busd &
    pids="$pids $!"
    await test -S "$UBUS_SOCKET"
}

start_daemon() {
    ipacl >"$scratch/daemon.out" &
    pids="$pids $!"
    await ipaclctl running-config
}
