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

# The compiled form is a library of its own.
cat >"$scratch/fast.c" <<'APP'
#include <aclapi.h>
#include <aclfast.h>
#include <ipaclstd.h>
#include <stdio.h>

int main(void) {
    struct acl_info packet = {0};
    struct acl_fast *form;
    uint32_t rule = 0, result;
    ipacl_init();
    if (!get_ipacl_byname("web", 1) || do_standard_end("web", "permit 10.0.0.1") != 0 ||
        do_standard_end("web", "deny any") != 0)
        return 1;
    form = acl_compile(ipacl_config_find("web"), 1 << 20);
    if (!form)
        return 2;
    result = acl_fast_check(form, &packet, 0, &rule);
    printf("rule %u says %u\n", (unsigned)rule, (unsigned)result);
    acl_fast_free(form);
    return 0;
}
APP
# shellcheck disable=SC2046
"$compiler" -std=c11 -Wall -Wextra -Wpedantic -Werror ${sanitizers:+-fsanitize=$sanitizers} \
    "$scratch/fast.c" -o "$scratch/fast" $(pkg-config --cflags --libs ipaclfast)
said=$(ASAN_OPTIONS=detect_leaks=0 LD_LIBRARY_PATH=$library ${EMULATOR:-} "$scratch/fast")
[ "$said" = "rule 2 says 2" ] || { echo "the compiled form said: $said"; exit 1; }
