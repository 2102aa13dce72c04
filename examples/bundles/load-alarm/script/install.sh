#!/bin/sh
# The first settings. Changed settings stay.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$bundle/data"
[ -f "$bundle/data/alarm.conf" ] || echo "limit=4.0" > "$bundle/data/alarm.conf"
