#!/bin/sh
# Renders manuals with what this host has for it and fails on any warning. Arguments: the manuals.
build=/none # nothing is started
# shellcheck source=tests/system/service.sh
. "$(dirname "$0")/service.sh"

# A renderer is given a manual; what it says on standard error or in the file "$said" is wrong.
with_man() {
    LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$1" >"$work/page" 2>"$said"
}
with_mandoc() {
    mandoc -T lint -W warning "$1" >"$said" || true
    mandoc -T utf8 "$1" >"$work/page"
}

said=$work/said
printf '.Dd November 21, 2026\n.Dt WRONG 1\n.Os\n.Sh NAME\n.Nm wrong\n.Nd bad\n.Bd\n.Nosuch\n' \
    >"$work/wrong.1"
renderers="" failed=0
for renderer in man mandoc; do
    command -v "$renderer" >/dev/null || continue
    renderers="$renderers $renderer"
    "with_$renderer" "$work/wrong.1" || true
    [ -s "$said" ] || fail "$renderer finds nothing wrong with a wrong manual"
    for manual in "$@"; do
        "with_$renderer" "$manual" || echo "$renderer: failed" >>"$said"
        [ "$(wc -l <"$work/page")" -gt 50 ] || echo "$renderer: renders hardly a page" >>"$said"
        if [ -s "$said" ]; then
            cat "$said"
            failed=$((failed + 1))
        fi
    done
done
[ -n "$renderers" ] || skip "needs man-db with groff, or mandoc"
echo "$# manuals with$renderers: $failed failed"
[ "$failed" -eq 0 ]
