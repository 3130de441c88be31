#!/usr/bin/env bash
# Sources the completion of ipaclctl in bash and looks at what it offers, with a broker and a daemon
# to ask. Arguments: the completion file, the build folder.
completion=$1 build=$2
# shellcheck source=tests/system/service.sh
. "$(dirname "$0")/service.sh"
set +e # failures are counted
# shellcheck disable=SC1090
. "$completion"

checks=0 failed=0

# The candidates for the last of the words given, in one line, sorted.
offered() {
    COMP_WORDS=(ipaclctl "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _ipaclctl
    printf "%s\n" "${COMPREPLY[@]}" | LC_ALL=C sort | paste -s -d ' '
}

# offers CANDIDATES WORD...
offers() {
    local wanted=$1 got
    shift
    got=$(offered "$@")
    checks=$((checks + 1))
    if [ "$got" != "$wanted" ]; then
        echo "ipaclctl $*: offers \"$got\", not \"$wanted\""
        failed=$((failed + 1))
    fi
}

start_broker
offers "" show "" # nobody to ask
start_daemon
ipaclctl load - <<'LISTS' || fail "not loaded"
ip access-list standard mgmt-hosts
ip access-list extended mgmt-out
ip access-list extended guest-in
LISTS
ipaclctl create 'a name' --type standard || fail "not created"
cd "$work" || exit 1
touch 'office.conf' 'branch office.conf'

complete -p ipaclctl | grep -q -- '-F _ipaclctl ipaclctl' || fail "nothing is registered"

offers "apply confirm create destroy diff equal explain import json lint load merge plan ranges replay rule running-config save show unreachable watch" ""
offers "ranges replay rule running-config" r
offers "save show" s
offers "" nonsense
offers "--force --help --socket --timeout --version" -
offers "show" -t 5 sh
offers "show" --timeout=5 sh
offers "" -t ""

for command in show json destroy rule explain; do
    offers 'a\ name guest-in mgmt-hosts mgmt-out' "$command" ""
    offers "mgmt-hosts mgmt-out" "$command" mgmt
    offers "" "$command" nolist
done
offers "" show guest-in ""
offers "" rule guest-in ""
offers "guest-in" destroy --type extended g
offers "mgmt-hosts" -s "$UBUS_SOCKET" show mgmt-h
offers "mgmt-hosts" --socket = "$UBUS_SOCKET" show mgmt-h
offers "" -s "$work/none" show mgmt-h
offers "" create ""
offers "extended standard" create web --type ""
offers "standard" json mgmt-hosts --type st
offers "extended" destroy web --type = e
offers "extended standard" destroy web --type =
offers "branch office.conf" load br
offers "office.conf" lint o
offers "json" lint office.conf --format j
offers "--force" rule --f
offers "office.conf" save o
offers "" load office.conf o
offers "office.conf" -s o
offers "" running-config ""
for command in apply import ranges replay; do
    offers "office.conf" "$command" o
    offers "" "$command" office.conf o
done
offers "guest-in" replay office.conf --list g
offers "guest-in" replay office.conf --list mgmt-out --against g
offers "office.conf" diff --against o
offers "guest-in" diff mgmt-out g
offers "" diff mgmt-out guest-in g
offers "office.conf" explain --file o
offers "guest-in" explain --file office.conf g
offers "" apply --confirm 6

# Every command and every long option that the tool has.
commands=$(ipaclctl --help | sed -n '/^Subcommands:/,$ s/^  \([a-z][a-z-]*\) .*/\1/p')
[ "$(echo "$commands" | wc -w)" -ge 8 ] || fail "the tool's help names too few commands"
for command in "" $commands; do
    [ -z "$command" ] || offers "$command" "$command"
    # shellcheck disable=SC2086
    for option in $(ipaclctl $command --help | grep '^  -' | grep -o -e '--[a-z-]*'); do
        # One option may be the beginning of another.
        # shellcheck disable=SC2086
        case " $(offered $command "$option") " in
        *" $option "*) checks=$((checks + 1)) ;;
        *) offers "$option" $command "$option" ;;
        esac
    done
done

echo "$checks checks, $failed failed"
[ "$failed" -eq 0 ] && [ "$checks" -gt 50 ]
