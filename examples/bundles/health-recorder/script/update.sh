#!/bin/sh
# Runs after the new manifest has been read, while the old item still runs. The next version may record other columns,
# so it gets a new file.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
if [ -f "$bundle/data/samples.csv" ]; then
    mv "$bundle/data/samples.csv" "$bundle/data/samples.before-update.csv"
    echo "health-recorder: the samples so far are in $bundle/data/samples.before-update.csv" >&2
fi
