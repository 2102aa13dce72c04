#!/usr/bin/env bash
# The crontab's rotation with the real logrotate bounds the log of an item that always crashes. The server relaunches it
# once a second, which writes less than 2 kB a second. docs/operating.md gives the bound.
#
# usage: logrotate_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
enter_machine "$@"
command -v logrotate > /dev/null || skip "logrotate is not installed"

fresh_root
# shellcheck disable=SC2046 # one package a word
dpkg-query -L $(closure dash coreutils gzip logrotate) | grep -E '^/(usr/)?(s?bin|lib(64)?)/' | sort -u | copy_files
unpack "$1" "$root" bundle-server bundlectl
logs=$root/var/log/bundle-server

# crash_loop SECONDS: writes the records of a crash loop in that time, through a descriptor that stays open. They have the
# length and the changing parts of real records.
crash_loop() {
    awk -v seconds="$1" -v minute="$((minute++))" 'BEGIN {
        for (second = 0; second < seconds; ++second) {
            for (record = 0; record < 12; ++record) {
                printf "2026-11-21T%02d:%02d:%02d.%06dZ INFO 4 0 %d %d %s:%d crasher.crash.sh[%d] %s\n", minute / 60 % 24, minute % 60,
                    second % 60, rand() * 1e6, 7023, 7029, "system_server/bundle_server_module/src/bundle_process_activator.cpp",
                    100 + record * 37, 8000 + minute * 300 + second, "abnormal termination, signal: 11."
            }
        }
    }' >&3
}

total() {
    du -bs "$logs" | cut -f 1
}

minute=0
largest=0
exec 3>> "$logs/bundle-server.log"
for ((run = 0; run < 60; ++run)); do
    crash_loop 300
    size=$(total)
    [ "$size" -le "$largest" ] || largest=$size
    cron logrotate || fail "the rotation fails"
done
[ -f "$logs/bundle-server.log.4.gz" ] || fail "it has not been rotated four times: $(ls "$logs")"
[ ! -e "$logs/bundle-server.log.5.gz" ] || fail "more than four old logs are kept: $(ls "$logs")"
gzip --test "$logs"/*.gz || fail "an old log is broken"
[ "$largest" -le 2500000 ] || fail "the log has grown to $largest bytes"
[ "$largest" -ge 1000000 ] || fail "the log has been no larger than $largest bytes: nothing was tested"
# Records after a rotation are kept.
echo "the last record" >&3
grep -q "the last record" "$logs/bundle-server.log" || fail "nothing is logged after a rotation"
echo "at most $largest bytes"
