#!/bin/sh
# Compares the functions that headers declare with those that a document describes: in a manual's
# synopsis, or in the first column of a Markdown file's tables. Arguments: the document, how many
# functions there are at least, the headers.
set -eu
document=$1 least=$2
shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# A declaration begins at the margin; a typedef declares no function.
sed -n '/^typedef/d; s/^[a-z][a-z_0-9 ]*[ *]\([a-z_A-Z0-9]*\)(.*/\1/p' "$@" |
    sort >"$scratch/declared"
# shellcheck disable=SC2016
case $document in
*.md) sed -n 's/^| `\([a-z_A-Z0-9]*\)` .*/\1/p' "$document" ;;
*) awk '/^\.Sh/ { synopsis = $2 == "SYNOPSIS" } synopsis && /^\.F[no] / { print $2 }' "$document" ;;
esac | sort >"$scratch/described"
found=$(wc -l <"$scratch/declared")
[ "$found" -ge "$least" ] || { echo "only $found functions are found"; exit 1; }
diff -u "$scratch/declared" "$scratch/described"
echo "$found functions"
