#!/bin/sh
# Records how full the disk of its own bundle is, in data/disk.csv. One line for each change, so that the file stays
# small.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1

before=
while :; do
    used=$(df -P "$bundle" | awk 'NR == 2 { print $5 }')
    if [ "$used" != "$before" ]; then
        before=$used
        echo "disk_watch: $used of the disk is used" >&2
        echo "$(date +%s),$used" >> "$bundle/data/disk.csv"
    fi
    sleep 2
done
