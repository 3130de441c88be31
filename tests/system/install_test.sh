#!/bin/sh
# Installs a build into a scratch folder, builds a C program with pkg-config against it and runs
# it. Arguments: cmake, the build folder, the C compiler, the sanitizers of the build if any.
set -eu
cmake=$1 build=$2 compiler=$3 sanitizers=${4:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build" --prefix "$scratch" >/dev/null
for program in sbin/ipacl sbin/ipacl-busd bin/ipaclctl; do
    [ -x "$scratch/$program" ] || { echo "$program was not installed"; exit 1; }
done
PKG_CONFIG_PATH=$(dirname "$(find "$scratch" -name ipacl.pc)")
library=$(dirname "$(find "$scratch" -name libipacl.a)")
export PKG_CONFIG_PATH

cat >"$scratch/app.c" <<'APP'
#include <aclapi.h>
#include <ipaclstd.h>

int main(void) {
    ipacl_init();
    if (!get_ipacl_byname("web", 1) || do_standard_end("web", "permit 10.0.0.1") != 0)
        return 1;
    acl_print();
    return 0;
}
APP
# shellcheck disable=SC2046
"$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror ${sanitizers:+-fsanitize=$sanitizers} \
    "$scratch/app.c" -o "$scratch/app" $(pkg-config --cflags --libs ipacl)
said=$(ASAN_OPTIONS=detect_leaks=0 LD_LIBRARY_PATH=$library "$scratch/app")
expected="ip access-list standard web
 permit  10.0.0.1 255.255.255.255
!"
[ "$said" = "$expected" ] || { echo "the program said: $said"; exit 1; }
