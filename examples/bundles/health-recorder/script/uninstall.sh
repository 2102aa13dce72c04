#!/bin/sh
# Runs before the directory of a deleted bundle is removed, so it is the last chance to save something. It saves beside
# the collection, because a new file in the collection would raise an event.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
kept=$(dirname "$(dirname "$bundle")")/kept
if [ -f "$bundle/data/samples.csv" ]; then
    mkdir -p "$kept"
    cp "$bundle/data/samples.csv" "$kept/health-recorder.csv"
    echo "health-recorder: the samples are kept in $kept/health-recorder.csv" >&2
fi
