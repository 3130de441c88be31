#!/bin/sh
# Runs every example of a document, one after the other in one shell, and compares what it says
# with what is shown. Arguments: the document, the number of its examples, the build folder, the
# source folder, cmake, the C compiler, the sanitizers of the build if any.
#
# A "cat FILE" of a file that is not there yet makes it, with what is shown. Blanks at the end of a
# line, which no reader sees, don't count. A failing command must be shown to say something.
document=$1 expected=$2 build=$3 source=$4 cmake=$5 compiler=$6 sanitizers=${7:-}
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=tests/system/service.sh
. "$here/service.sh"
set +e # failures are counted

mkdir "$work/examples" "$work/here"
found=$(awk -v directory="$work/examples" -f "$here/examples.awk" "$document") ||
    fail "the examples of $document could not be read"
[ "$found" -eq "$expected" ] || fail "$document has $found examples, not $expected"

cd "$work/here" || exit 1
name=$(basename "$document")
case $name in
README.md) # as in the source folder, where a release was built; the document starts the service
    mkdir -p build/release && ln -s "$programs" build/release/bin
    ln -s "$source/examples" examples
    command -v ubus >/dev/null || ln -s "$programs/ubus-call" "$work/ubus"
    PATH=$PATH:$work
    ;;
porting.md) # in a source folder without build
    for entry in "$source"/*; do
        [ "$entry" = "$source/build" ] || ln -s "$entry" .
    done
    ;;
ipacl.8) ;; # starts the service itself
*)
    start_broker
    start_daemon
    ;;
esac
if [ "$name" = libipacl.3 ]; then # against an installation
    "$cmake" --install "$build" --prefix "$work/usr" >/dev/null || fail "not installed"
    PKG_CONFIG_PATH=$(dirname "$(find "$work/usr" -name ipacl.pc)")
    LD_LIBRARY_PATH=$(dirname "$(find "$work/usr" -name libipacl.a)")
    ASAN_OPTIONS=detect_leaks=0
    export PKG_CONFIG_PATH LD_LIBRARY_PATH ASAN_OPTIONS
    cc() {
        command "$compiler" -Wall -Wextra -Wpedantic -Werror ${sanitizers:+-fsanitize=$sanitizers} "$@" ||
            return
        [ -n "${EMULATOR:-}" ] || return 0
        while [ "$1" != -o ]; do shift; done
        mv "$2" "$2.program" && emulated "$PWD/$2.program" "$2"
    }
fi

# Commands of the tool that not every build has.
lacking=""
if ! ipaclctl --help | grep -q '^ *explain '; then
    lacking="apply confirm diff equal explain import merge plan ranges replay unreachable"
fi
is_lacking() {
    for word in $lacking; do
        case $1 in *"ipaclctl $word"*) return 0 ;; esac
    done
    return 1
}

# What a test can't run inside itself, and who does instead.
# shellcheck disable=SC2016
run_elsewhere() {
    [ "$name" = README.md ] || return 1
    case $1 in
    scripts/demo*) who="the test Readme.TheDemoRuns" ;;
    scripts/test*) who="whoever runs all tests" ;;
    "cmake --preset release && cmake --build --preset release && cmake --install build/release")
        who="scripts/test, and the test Install.ACProgramIsBuiltWithPkgConfigAndRuns" ;;
    'cc app.c $(pkg-config --cflags --libs ipacl)') who="the test Examples.libipacl.3" ;;
    *) return 1 ;;
    esac
    echo "run by $who: $1"
}

same_text() { # two files, but for blanks at line ends
    sed 's/[[:space:]]*$//' "$1" >"$work/left"
    sed 's/[[:space:]]*$//' "$2" >"$work/right"
    diff -u "$work/left" "$work/right"
}

# What a reader at the keyboard would wait for after starting something in the background.
settle() {
    children="$children $!"
    case $1 in
    *" --confirm 60 &") await grep -q "ipaclctl confirm" "$example.said" ;;
    *ipacl-busd*) await test -S "$UBUS_SOCKET" ;;
    *ipaclctl*) await same_text "$example.shown" "$example.said" ;;
    *) await ipaclctl running-config ;;
    esac
}

number=0 failed=0 compared=0 left_out=0
while [ "$number" -lt "$found" ]; do
    number=$((number + 1))
    example=$work/examples/$number
    command=$(cat "$example.command")
    run_elsewhere "$command" && continue
    if is_lacking "$command"; then
        left_out=$((left_out + 1))
        continue
    fi
    case $command in
    "cat "*[!A-Za-z0-9._-]*) ;;
    "cat "*) [ -e "${command#cat }" ] || cp "$example.shown" "${command#cat }" ;;
    esac
    # shellcheck disable=SC1090
    . "$example.command" >"$example.said" 2>&1
    result=$?
    case $command in *"&") settle "$command" ;; esac
    if [ "$result" -ne 0 ] && [ ! -s "$example.shown" ]; then
        echo "FAILED with $result: $command"
        cat "$example.said"
        failed=$((failed + 1))
    elif [ "${name%.md}" = "$name" ]; then # Markdown shows no output
        compared=$((compared + 1))
        if ! same_text "$example.shown" "$example.said"; then
            echo "SAID SOMETHING ELSE: $command"
            failed=$((failed + 1))
        fi
    fi
done
if [ "$name" = README.md ] && ! ipaclctl show web | grep -q 'permit tcp any any eq www'; then
    echo "the requests of the README have made no rule"
    failed=$((failed + 1))
fi
echo "$name: $found examples, $compared compared, $failed failed"
[ "$failed" -eq 0 ] || exit 1
[ "$left_out" -eq 0 ] ||
    skip "$left_out of $found examples need exact analysis, for which BuDDy is missing; the others pass"
