# Takes the examples out of a document: every command into DIRECTORY/N.command and what is shown
# below it into DIRECTORY/N.shown, N from 1. Prints how many there are.
#
# In a manual an example is a line that begins with "$ " in a literal display whose first line is
# one; lines that begin with "> " go on with it. In the section EXAMPLES every display is such a
# one. In a Markdown file it is every line of a block fenced as "sh". What could be taken for an
# example and is not one is an error.

function wrong(what) {
    printf "%s:%d: %s\n", FILENAME, FNR, what > "/dev/stderr"
    failed = 1
    exit 1
}

# A line of a literal display as it is printed.
function printed(line,    text, at, escape) {
    text = ""
    while ((at = index(line, "\\")) > 0) {
        text = text substr(line, 1, at - 1)
        escape = substr(line, at, 2)
        line = substr(line, at + 2)
        if (escape == "\\(") {
            escape = escape substr(line, 1, 2)
            line = substr(line, 3)
        }
        if (!(escape in glyphs))
            wrong("don't know the escape " escape)
        text = text glyphs[escape]
    }
    return text line
}

function begin_example(command) {
    end_example()
    count++
    file = directory "/" count
    printf "%s\n", command > (file ".command")
    printf "" > (file ".shown")
    answered = 0
}

function end_example() {
    if (file) {
        close(file ".command")
        close(file ".shown")
    }
    file = ""
}

BEGIN {
    glyphs["\\-"] = "-"; glyphs["\\e"] = "\\"; glyphs["\\&"] = ""
    glyphs["\\(aq"] = "'"; glyphs["\\(dq"] = "\""; glyphs["\\(ti"] = "~"; glyphs["\\(ha"] = "^"
    count = 0
}
END {
    if (!failed) {
        end_example()
        print count
    }
}

FILENAME ~ /\.md$/ {
    if (/^ *```/) {
        fence = fence ? "" : substr($0, index($0, "```") + 3) " "
        if (fence == " ")
            wrong("a block must be fenced with its language")
    } else if (!fence && /^(    |\t)/ && after_blank) {
        wrong("a block must be fenced")
    } else if (fence == "sh " && NF > 0) {
        begin_example($0)
    }
    after_blank = NF == 0
    next
}

/^\.Sh/ { examples = $2 == "EXAMPLES"; next }
/^\.Bd -literal/ { opened = 1; next }
/^\.Ed/ { literal = opened = 0; end_example(); next }
opened { literal = examples || /^\$ /; opened = 0 }
!literal && /^(\\&)?\$ / { wrong("a command outside of a literal display that begins with one") }
!literal { next }
{
    text = printed($0)
    if (text ~ /^\$ /) {
        begin_example(substr(text, 3))
    } else if (!file) {
        wrong("a display that does not begin with a command")
    } else if (text ~ /^> / && !answered) {
        printf "%s\n", substr(text, 3) > (file ".command")
    } else {
        printf "%s\n", text > (file ".shown")
        answered = 1
    }
}
