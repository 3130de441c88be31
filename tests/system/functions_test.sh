#!/bin/sh
# Compares the functions that headers declare with those of a manual's synopsis. Arguments: the
# manual, how many functions there are at least, the headers.
set -eu
manual=$1 least=$2
shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# A declaration begins at the margin; a typedef declares no function.
sed -n '/^typedef/d; s/^[a-z].*[ *]\([a-z_A-Z0-9]*\)(.*/\1/p' "$@" | sort >"$scratch/declared"
awk '/^\.Sh/ { synopsis = $2 == "SYNOPSIS" } synopsis && /^\.F[no] / { print $2 }' "$manual" |
    sort >"$scratch/described"
found=$(wc -l <"$scratch/declared")
[ "$found" -ge "$least" ] || { echo "only $found functions are found"; exit 1; }
diff -u "$scratch/declared" "$scratch/described"
echo "$found functions"
