#!/usr/bin/env bash
# The order in which systemd ends the service: first the server, then its items, by SIGTERM and after ten seconds by
# SIGKILL. A server that still ran would take its items' ends for crashes.
#
# usage: systemd_stop_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine
notes= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"

items="tuner deaf witness"
record=var/log/bundle-server/bundle-server.log
own=etc/systemd/system/bundle-server.service.d

prepare() {
    put_bundle tuner
    put_bundle deaf
    put_witness
    sed -i "1i trap '' TERM" "$root/$bundles/deaf/bin/deaf.sh"
    give_items_a_second
}

give_items_a_second() {
    mkdir -p "$root/$own"
    printf '[Service]\nTimeoutStopSec=1\n' > "$root/$own/items.conf"
}

all_run() {
    local name
    for name in $items; do
        runs "bin/$name.sh" 1 || return 1
    done
    serves
}

# end_service COMMAND WHEN: stops or restarts the service. Sets $took to the milliseconds that it takes.
end_service() {
    local server lines begin
    await all_run || fail "$2: the items do not run"
    server=$(running sbin/bundle_server)
    lines=$(wc -l < "$root/$record")
    begin=$(date +%s%N)
    manager "$1" bundle-server || fail "$2: it fails"
    took=$((($(date +%s%N) - begin) / 1000000))
    check_order "$root/var/log" "$server" "$lines" "$2"
}

none_run() {
    local name
    for name in sbin/bundle_server bin/{tuner,deaf,witness}.sh script/update.sh; do
        runs "$name" 0 || fail "$1: there still is $name: $(running "$name")"
    done
}

has_warned() {
    chroot "$root" journalctl --unit=bundle-server --priority=4 | grep -q "has not ended within 8 seconds and is killed"
}

# A script that does not end blocks the server, so systemd kills the server. The items still get SIGTERM after that.
stop_while_a_script_runs() {
    local new=$root/$bundles/../update.sh
    printf '#!/bin/sh\nsleep 1000\n' > "$new"
    chmod 755 "$new"
    await all_run || fail "the items do not run"
    mv "$new" "$root/$bundles/tuner/script/"
    await runs script/update.sh 1 || fail "the script is not run"
    rm -r "${root:?}/$own"
    manager daemon-reload
    end_service stop "held by a script"
    none_run "held by a script"
    [ $took -ge 8000 ] || fail "a server that a script blocks is killed after $took ms"
    await has_warned || fail "no message says that the server was killed"
}

observe() {
    local stop
    for ((stop = 1; stop <= 9; ++stop)); do
        end_service stop "stop $stop"
        none_run "stop $stop"
        [ "$(manager show --property=Result --value bundle-server)" = timeout ] || fail "the item that ignores SIGTERM has ended by it"
        manager start bundle-server || fail "it cannot be started again"
    done
    end_service restart "restart"
    rm -r "${root:?}/$own"
    manager daemon-reload
    end_service stop "stop 10"
    none_run "stop 10"
    [ $took -ge 10000 ] || fail "an item that ignores SIGTERM is killed after $took ms"

    give_items_a_second
    manager daemon-reload
    rm -r "${root:?}/$bundles/deaf"
    items="tuner witness"
    manager start bundle-server || fail "it cannot be started again"
    stop_while_a_script_runs
    rm "$root/$bundles/tuner/script/update.sh"
    manager start bundle-server || fail "it cannot be started again"
    await all_run || fail "the items do not run"
    echo "$(running sbin/bundle_server) $(wc -l < "$root/$record")" > "$IN_MACHINE/before"
}

look_back() {
    local server lines
    read -r server lines < "$notes/before"
    check_order "$notes/log" "$server" "$lines" "shutdown"
    echo "stopped ten times, restarted, stopped while a script ran, and shut down: the server ended first each time"
}

on_machine "$@"
