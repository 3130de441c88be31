#!/bin/sh
# Installs a build into a scratch folder, builds a C program with pkg-config against it and runs
# it. Arguments: cmake, the build folder, the C compiler, the sanitizers of the build if any.
# $EMULATOR starts a program of the build where it is for another machine.
set -eu
cmake=$1 build=$2 compiler=$3 sanitizers=${4:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build" --prefix "$scratch" >/dev/null
for program in sbin/ipacl sbin/ipacl-busd bin/ipaclctl; do
    [ -x "$scratch/$program" ] || { echo "$program was not installed"; exit 1; }
done
for file in man/man1/ipaclctl.1.gz man/man3/libipacl.3.gz man/man5/ipacl.conf.5.gz man/man8/ipacl.8.gz \
    bash-completion/completions/ipaclctl acl.d/ipacl.json acl.d/ipacl-operator.json; do
    [ -s "$scratch/share/$file" ] || { echo "$file was not installed"; exit 1; }
done
PKG_CONFIG_PATH=$(dirname "$(find "$scratch" -name ipacl.pc)")
library=$(dirname "$(find "$scratch" -name libipacl.a)")
export PKG_CONFIG_PATH

here=$(dirname "$0")
# shellcheck disable=SC2046
"$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror ${sanitizers:+-fsanitize=$sanitizers} \
    "$here/../../examples/linked-component.c" -o "$scratch/component" \
    $(pkg-config --cflags --libs ipacl)
LD_LIBRARY_PATH=$library ASAN_OPTIONS=detect_leaks=0 \
    ${EMULATOR:-} "$scratch/component" "$here/../../examples/branch-office.conf" >"$scratch/said"
diff "$here/../golden/linked-component.txt" "$scratch/said"
