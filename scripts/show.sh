# Shows commands as they are typed, with what they say; source it.
# shellcheck shell=sh

typed() {
    line='$'
    for word in "$@"; do
        case $word in
        *[!A-Za-z0-9._/-]*) line="$line \"$word\"" ;;
        *) line="$line $word" ;;
        esac
    done
    printf '%s\n' "$line"
}

# Shows a command that must end with the status $1: 1 is a refusal, or an answer that is a finding.
ends_with() {
    wanted=$1
    shift
    typed "$@"
    got=0
    "$@" || got=$?
    if [ "$got" -ne "$wanted" ]; then
        printf 'this ended with %s, not with %s: %s\n' "$got" "$wanted" "$*" >&2
        exit 1
    fi
}
show() { ends_with 0 "$@"; }
