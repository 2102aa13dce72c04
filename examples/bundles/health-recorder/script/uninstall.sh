#!/bin/sh
# Runs before a deleted bundle's directory is removed: the last moment to save something. Goes beside the collection,
# for in it a file would be an item that has come.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
kept=$(dirname "$(dirname "$bundle")")/kept
if [ -f "$bundle/data/samples.csv" ]; then
    mkdir -p "$kept"
    cp "$bundle/data/samples.csv" "$kept/health-recorder.csv"
    echo "health-recorder: the samples are kept in $kept/health-recorder.csv" >&2
fi
