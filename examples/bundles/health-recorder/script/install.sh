#!/bin/sh
# Runs each time the server loads the bundle, so also at every start of the server: what is there already stays.
# The folder is made here because an item that made it would change its bundle's root, and with that restart itself.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$bundle/data"
echo "health-recorder: samples are kept in $bundle/data" >&2
