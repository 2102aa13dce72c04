#!/bin/sh
# Polls the page of the bundle web-page and records in data/availability.log when the page appears and disappears. The
# server has started a required bundle first, but its program may not answer yet, and it may go away: a client must be
# ready for both.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1
page=http://127.0.0.1:${BUNDLE_EXAMPLES_PORT:-8090}/

before=unknown
while :; do
    # Without "--foreground", timeout leaves the server's process group, and the server can no longer supervise it.
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
