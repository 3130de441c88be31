#!/bin/sh
# Holds the exposure of a systemd unit, as systemd-analyze rates it, at or below 2.0. Argument: the
# unit's file. Status 77 when it could not be checked.
set -u
unit=$1

if ! systemd-analyze security --offline=true --help >/dev/null 2>&1; then
    echo "units_test: Skipped"
    echo "this host has no systemd-analyze that rates unit files"
    exit 77
fi
# The threshold is in tenths.
if ! said=$(systemd-analyze security --offline=true --threshold=20 --no-pager "$unit" 2>&1); then
    echo "$said"
    exit 1
fi
echo "$said" | tail -n 1
