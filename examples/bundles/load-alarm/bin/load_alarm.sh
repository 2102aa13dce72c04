#!/bin/sh
# Writes a line when the load of the machine rises above the limit in data/alarm.conf, and another when it has fallen
# again. For new settings the script ends with status 2, which asks the server for a relaunch.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1
settings=$bundle/data/alarm.conf

mark() {
    stat -c '%i %s %y' "$settings"
}

first_mark=$(mark) || exit 1
limit=$(sed -n 's/^limit=\([0-9][0-9.]*\)$/\1/p' "$settings")
echo "load_alarm: the limit is ${limit:-not set}" >&2

above=no
# Only two seconds, because a sleep lives on to its end when the shell that waits for it is killed.
while sleep 2; do
    if [ "$(mark)" != "$first_mark" ]; then
        echo "load_alarm: new settings" >&2
        exit 2
    fi
    [ -n "$limit" ] || continue
    now=$(awk -v limit="$limit" '{ print ($1 > limit ? "yes" : "no") }' /proc/loadavg)
    if [ "$now" != "$above" ]; then
        above=$now
        echo "$(date -u +%Y-%m-%dT%H:%M:%SZ) above the limit of $limit: $above" >> "$bundle/data/alarms.log"
    fi
done
