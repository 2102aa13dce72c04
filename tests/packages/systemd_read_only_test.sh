#!/usr/bin/env bash
# A machine with a read-only root and the files of packaging/read-only-root. It boots and serves. Bundles of the image run,
# can be deleted and stay deleted. Others can be added. The log is in the journal, and no unit fails.
#
# usage: systemd_read_only_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"
image=usr/share/bundle-server/bundles

prepare() {
    local units=$root/usr/lib/systemd/system
    cp -R "$(dirname "$0")"/../../packaging/read-only-root/. "$root/"
    rm "$root/etc/default/bundle-server"
    mkdir -p "$root"/{mnt/bolt,data,$image}
    cp /lib/systemd/system/systemd-tmpfiles-setup.service "$units/"
    ln -s ../systemd-tmpfiles-setup.service "$units/sysinit.target.wants/"
    mkdir -p "$root/etc/systemd/system/bundle-server-check.timer.d" "$root/etc/systemd/system/bundle-server-logrotate.timer.d"
    printf '[Timer]\nOnCalendar=\nOnCalendar=*:*:0/4\nAccuracySec=1ms\n' |
        tee "$root/etc/systemd/system/bundle-server-check.timer.d/often.conf" \
            > "$root/etc/systemd/system/bundle-server-logrotate.timer.d/often.conf"
    put_bundle radio
    put_bundle clock
    mv "$root/$bundles"/{radio,clock} "$root/$image/"
    umount "$root/var/log"
    mount -t tmpfs none "$root/tmp"
    # A writable partition.
    mount -t tmpfs none "$root/data"
    mount -o remount,ro "$root"
}

# has_run UNIT: whether it has come to an end, with what result ever.
has_run() {
    [ -n "$(manager show --property=ExecMainExitTimestamp --value "$1")" ] || manager is-failed --quiet "$1"
}

observe() {
    local started said
    await serves || fail "the server does not serve: $(manager status --no-pager bundle-server 2>&1)"
    ! touch "$root/etc/written" 2> /dev/null || fail "the root is writable"
    await runs bin/radio.sh 1 || fail "a bundle of the image does not run"
    [ "$(stat -f -c %T "$root/mnt/bolt")" = tmpfs ] || fail "the service directory is not in memory"
    [ "$(stat -c %a "$root/mnt/bolt")" = 755 ] || fail "the directory of services has the mode $(stat -c %a "$root/mnt/bolt")"

    chroot "$root" bundlectl delete radio > "$root/tmp/said" 2>&1 || fail "a bundle of the image cannot be deleted: $(cat "$root/tmp/said")"
    [ ! -e "$root/$bundles/radio" ] || fail "the deleted bundle is still in the collection"
    [ -e "$root/$image/radio" ] || fail "the image has changed"
    cp -R "$root/$image/radio" "$root/data/tuner"
    sed -i s/radio/tuner/ "$root/data/tuner/BundleManifest.ini"
    mv "$root/data/tuner/bin/radio.sh" "$root/data/tuner/bin/tuner.sh"
    cp -R "$root/data/tuner" "$root/$bundles/"
    await runs bin/tuner.sh 1 || fail "a bundle that is added does not run"

    # This simulates the next start of the device.
    manager stop bundle-server 'var-lib-bundle\x2dserver-bundles.mount' || fail "it cannot be stopped"
    [ ! -e "$root/$bundles/clock" ] || fail "the collection is still mounted"
    started=$(date +%s)
    manager start bundle-server || fail "it cannot be started again"
    await serves || fail "the server does not serve again"
    await runs bin/tuner.sh 1 || fail "the bundle that was added does not run after a restart"
    await runs bin/clock.sh 1 || fail "the image's bundle does not run after a restart"
    [ ! -e "$root/$bundles/radio" ] || fail "the deleted bundle is back"
    said=$(chroot "$root" journalctl --unit=bundle-server --since="@$started" --output=cat)
    [[ $said == *"load bundle[clock] success"* ]] || fail "the journal has no log: $said"
    await has_run bundle-server-check || fail "the check has not run"
    said=$(manager list-units --state=failed --no-legend '*.mount' 'bundle-server*.service')
    [ -z "$said" ] || fail "units have failed: $said"
    said=$(manager show --property=SubState --value bundle-server-recorder)
    [ "$said" = dead ] || fail "the recorder, which has no place to write to, is in the state \"$said\""
    echo "served from a read-only root; a deletion and an addition survive a restart"
}

on_machine "$@"
