#!/usr/bin/env bash
# The unit under systemd itself. After a crash the server is started again, with each item once. A stop ends every process
# of the service. The unit's restrictions let bundles work.
#
# usage: systemd_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"

prepare() {
    put_bundle tuner
    put_bundle away
    # shellcheck disable=SC2016 # expanded on the machine
    printf 'exec setsid sh -c "while :; do sleep 1; done" /bin/away.sh\n' > "$root/$bundles/away/bin/away.sh"
    put_bundle radio
    printf '#!/bin/sh\ntouch /etc/installed\ntouch /usr/installed\n' > "$root/$bundles/radio/script/install.sh"
    chmod 755 "$root/$bundles/radio/script/install.sh"
}

# Others see an item's mounts only without the settings that need a mount namespace. The manual's drop-in turns those off.
check_mounts() {
    local own=$root/etc/systemd/system/bundle-server.service.d
    put_bundle card
    printf 'mkdir -p /srv/card\nmount -t tmpfs none /srv/card && touch /srv/card/mounted /var/log/mounted\nwhile :; do sleep 1; done\n' \
        > "$root/$bundles/card/bin/card.sh"
    await test -e "$root/var/log/mounted" || fail "an item cannot mount"
    [ ! -e "$root/srv/card/mounted" ] || fail "others see an item's mounts"
    mkdir "$own"
    sed -n '/^- Or give up the settings that need the namespace/,/^  ```$/s/^  \([[A-Z].*\)/\1/p' "$(dirname "$0")/../../docs/operating.md" > "$own/mounts.conf"
    [ "$(wc -l < "$own/mounts.conf")" -ge 5 ] || fail "the manual has no drop-in: $(cat "$own/mounts.conf")"
    manager daemon-reload
    manager restart bundle-server
    await test -e "$root/srv/card/mounted" || fail "with the manual's drop-in an item's mounts are still hidden from others"
    rm -r "$own" "${root:?}/$bundles/card"
    manager daemon-reload
}

limit() {
    sed -n 's/^Max open files *\([0-9]*\).*/\1/p' "/proc/$(running sbin/bundle_server)/limits"
}

# The timers run with the service. The one for the log's rotation is set to fire at once.
check_timers() {
    local timer
    for timer in check logrotate; do
        [ "$(manager is-active bundle-server-$timer.timer)" = active ] || fail "the timer $timer does not run"
    done
    command -v logrotate > /dev/null || skip "logrotate is not installed"
    head -c 1100000 /dev/zero | tr '\0' '\n' >> "$root/var/log/bundle-server/bundle-server.log"
    mkdir "$root/etc/systemd/system/bundle-server-logrotate.timer.d"
    printf '[Timer]\nOnCalendar=*:*:*\nAccuracySec=1ms\n' > "$root/etc/systemd/system/bundle-server-logrotate.timer.d/often.conf"
    manager daemon-reload
    manager restart bundle-server-logrotate.timer
    await test -f "$root/var/log/bundle-server/bundle-server.log.1.gz" || fail "the timer does not rotate the log"
}

observe() {
    await serves || fail "the server does not serve"
    await runs bin/tuner.sh 1 || fail "the item is not run"
    await runs bin/away.sh 1 || fail "the item in a session of its own is not run"
    [ "$(limit)" = 16384 ] || fail "the limit of descriptors is $(limit)"
    [ -e "$root/etc/installed" ] || fail "an installation script may not write to /etc"
    [ ! -e "$root/usr/installed" ] || fail "an installation script may write to /usr"

    local server before after
    server=$(running sbin/bundle_server)
    before=$(running bin/tuner.sh; running bin/away.sh)
    kill -KILL "$server"
    await another_than "$server" || fail "a server that has crashed is not started again"
    await serves || fail "the server that is started again does not serve"
    await runs bin/tuner.sh 1 || fail "after a crash the item runs as: $(running bin/tuner.sh)"
    await runs bin/away.sh 1 || fail "after a crash the item in a session of its own runs as: $(running bin/away.sh)"
    after=$(running bin/tuner.sh; running bin/away.sh)
    [ -z "$(comm -12 <(sort <<< "$before") <(sort <<< "$after"))" ] || fail "an item of the crashed server is still there"

    # The server has a mount namespace of its own, but bundlectl must still find it.
    chroot "$root" bundlectl status > "$root/tmp/status" 2>&1
    grep -q "tuner.*1/1" "$root/tmp/status" || fail "bundlectl does not show what runs: $(cat "$root/tmp/status")"
    check_timers
    check_mounts
    await serves || fail "the server does not serve after a restart"
    chroot "$root" bundlectl delete radio || fail "a bundle cannot be deleted"
    [ ! -e "$root/$bundles/radio" ] || fail "the deleted bundle is still there"
    manager stop bundle-server || fail "it cannot be stopped"
    for program in sbin/bundle_server bin/tuner.sh bin/away.sh; do
        runs "$program" 0 || fail "after a stop there still is $program: $(running "$program")"
    done
    echo "started again after a crash with each item once, and stopped with no item left"
}

on_machine "$@"
