#!/bin/sh
# A first page, until a bundle writes another.
set -eu
bundle=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$bundle/data/www"
[ -f "$bundle/data/www/index.html" ] || echo "<p>Nothing to report yet.</p>" > "$bundle/data/www/index.html"
