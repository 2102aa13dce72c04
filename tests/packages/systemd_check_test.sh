#!/usr/bin/env bash
# The packaged timer finds a server that has items and no monitor, and restarts it if the configuration asks for that. It
# does not touch a server that needs no monitor.
#
# usage: systemd_check_test.sh PACKAGES LIBRARY
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"
library=$2

often() {
    mkdir -p "$root/etc/systemd/system/bundle-server-check.timer.d"
    printf '[Timer]\nOnCalendar=\nOnCalendar=*:*:0/2\nAccuracySec=1ms\n' \
        > "$root/etc/systemd/system/bundle-server-check.timer.d/often.conf"
}

# A bundle with one item of thread mode, which has a child, and a bundle with a long script.
put_quiet_bundles() {
    put_bundle quiet
    printf '[global]\nbundle_name = quiet\nbundle_load_mode = 1\n\n[item]\nitem_name = quiet.so\nentry_func = KeepChild\n' \
        > "$root/$bundles/quiet/BundleManifest.ini"
    cp "$library" "$root/$bundles/quiet/bin/quiet.so"
    put_bundle slow
    printf '#!/bin/sh\nsleep 1000\n' > "$root/$bundles/slow/script/update.sh"
    chmod 755 "$root/$bundles/slow/script/update.sh"
    printf '[global]\nbundle_name = slow\nbundle_load_mode = 0\n' > "$root/$bundles/slow/BundleManifest.ini"
}

prepare() {
    put_quiet_bundles
    often
}

has_found() {
    [ "$(chroot "$root" journalctl --unit=bundle-server-check --priority=err --output=cat | grep -c "$1")" -gt 0 ]
}

# Runs the check now, without waiting for the timer.
check() {
    chroot "$root" /usr/libexec/bundle-server/check-supervision
}

children() {
    cat "/proc/$(running sbin/bundle_server)/task"/*/children
}

observe() {
    local server
    await serves || fail "the server does not serve"
    server=$(running sbin/bundle_server)
    touch "$root/$bundles/slow"
    await runs script/update.sh 1 || fail "the script does not run"
    [ "$(children | wc -w)" -eq 2 ] || fail "a library and a script have these children: $(children)"
    has_no_monitor || fail "there is a monitor without an item"
    check || fail "the children of a library and of a script are taken for items"
    # shellcheck disable=SC2046 # one id a word
    kill $(children)

    put_bundle tuner
    await runs bin/tuner.sh 1 || fail "the item does not run"
    check || fail "a server with a monitor is taken for one without"
    rm -r "${root:?}/$bundles/tuner"
    await has_no_monitor || fail "there is a monitor without an item"
    [ -z "$(children)" ] || fail "these children are left: $(children)"

    # From here on the timer runs the check.
    lose_monitor
    await has_found "The server, process $server, has items and no monitor.* Items: $(running bin/away.sh)(sh)" ||
        fail "no message says that nothing is supervised: $(chroot "$root" journalctl --unit=bundle-server-check)"
    ! another_than "$server" || fail "the service was restarted without being configured to"
    ! check 2> /dev/null || fail "the check succeeds for a server that supervises nothing"

    echo "BUNDLE_SERVER_RESTART_UNSUPERVISED=yes" >> "$root/etc/default/bundle-server"
    await another_than "$server" || fail "the service is not restarted"
    echo "found a server without a monitor, restarted it when asked, and did not touch others"
}

on_machine "$@"
