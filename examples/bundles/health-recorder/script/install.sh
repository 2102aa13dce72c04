#!/bin/sh
# Runs each time the server loads the bundle, so also at every start of the server. It keeps what exists already.
# An item that made the folder itself would change its bundle's root, and the server would restart the bundle.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$bundle/data"
echo "health-recorder: samples are kept in $bundle/data" >&2
