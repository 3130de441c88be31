# Completion of ipaclctl for bash: commands, options, files, and the names of the lists that the
# running service has.

# The names of the lists, one to a line; nothing when there is nobody to ask.
_ipaclctl_lists() {
    ipaclctl "$@" --timeout 2 json 2>/dev/null </dev/null |
        sed -n 's/.*"IpAccessListName":[[:space:]]*"\(.*\)",\{0,1\}$/\1/p'
}

_ipaclctl() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' positions=0 i choices='' lists='' files=''
    local -a service=()
    COMPREPLY=()

    # What stands before the cursor: the socket to ask, the command, and how many arguments it has.
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        -s | --socket)
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((i++))
            ((++i < COMP_CWORD)) && service=(--socket "${COMP_WORDS[i]}")
            ;;
        -t | --timeout | --type | --count | --file | --against | --against-file | --list | --limit | \
            --confirm | --format | --memory | --name | --top)
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((i++))
            ((i++))
            ;;
        -?*) ;;
        *) if [[ $command ]]; then ((positions++)); else command=${COMP_WORDS[i]}; fi ;;
        esac
    done

    # "--type=standard" comes as three words.
    if [[ $word == = ]]; then
        word=
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    case $previous in
    -s | --socket | --file | --against-file) files=1 ;;
    -t | --timeout | --count | --limit | --confirm | --memory | --name | --top) return ;;
    --list) lists=1 ;;
    --against) if [[ $command == replay ]]; then lists=1; else files=1; fi ;;
    --format) choices=$'json\nsarif\ntext' ;;
    --type) choices=$'standard\nextended' ;;
    *)
        case $command:$word in
        :-*) choices=$'--force\n--help\n--socket\n--timeout\n--version' ;;
        :*)
            choices=$'apply\nconfirm\ncreate\ndestroy\ndiff\nequal\nexplain\nimport\njson\nlint\n'
            choices+=$'load\nmerge\nplan\nranges\nreplay\nrule\nrunning-config\nsave\nshow\n'
            choices+=$'unreachable\nwatch'
            ;;
        lint:-*) choices=$'--format\n--help\n--warnings-as-errors' ;;
        load:-*) choices=$'--force\n--help\n--verbose' ;;
        rule:-*) choices=$'--force\n--help' ;;
        create:-* | destroy:-* | json:-*) choices=$'--help\n--type' ;;
        watch:-*) choices=$'--count\n--help' ;;
        apply:-*) choices=$'--confirm\n--dry-run\n--help\n--limit' ;;
        explain:-*) choices=$'--file\n--help\n--hex' ;;
        replay:-*) choices=$'--against\n--against-file\n--file\n--help\n--limit\n--list\n--memory' ;;
        ranges:-*) choices=$'--any-mask\n--deny\n--help\n--name' ;;
        diff:-*) choices=$'--against\n--file\n--help\n--json\n--limit' ;;
        equal:-*) choices=$'--against\n--file\n--help\n--json' ;;
        merge:-* | unreachable:-*) choices=$'--file\n--help\n--json' ;;
        plan:-*) choices=$'--file\n--help\n--json\n--top' ;;
        *:-*) choices=--help ;;
        apply:* | import:* | lint:* | load:* | ranges:* | replay:* | save:*)
            ((positions == 0)) && files=1
            ;;
        destroy:* | explain:* | json:* | merge:* | plan:* | rule:* | show:* | unreachable:*)
            ((positions == 0)) && lists=1
            ;;
        diff:* | equal:*) ((positions < 2)) && lists=1 ;;
        esac
        ;;
    esac

    [[ $lists ]] && choices=$(_ipaclctl_lists "${service[@]}")
    local choice
    if [[ $files ]]; then
        while IFS= read -r choice; do
            COMPREPLY+=("$choice")
        done < <(compgen -f -- "$word")
        compopt -o filenames 2>/dev/null
        return
    fi
    while IFS= read -r choice; do
        [[ $choice && $choice == "$word"* ]] || continue
        printf -v choice %q "$choice"
        COMPREPLY+=("$choice")
    done <<<"$choices"
}

complete -F _ipaclctl ipaclctl
