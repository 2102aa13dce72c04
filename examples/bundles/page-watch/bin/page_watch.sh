#!/bin/sh
# Polls the page of the bundle web-page and writes down when it came and when it went, in data/availability.log.
# A required bundle has been started first, which does not mean that its program already answers: a client must expect
# that it does not yet, and that it goes away.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1
page=http://127.0.0.1:${BUNDLE_EXAMPLES_PORT:-8090}/

before=unknown
while :; do
    # "--foreground": without it, timeout leaves the server's process group, and the server no longer knows of it.
    if timeout --foreground 2 busybox wget -q -O /dev/null "$page" 2> /dev/null; then
        now=up
    else
        now=down
    fi
    if [ "$now" != "$before" ]; then
        before=$now
        echo "page_watch: $page is $now" >&2
        echo "$(date -u +%Y-%m-%dT%H:%M:%SZ) $now" >> "$bundle/data/availability.log"
    fi
    sleep 1
done
