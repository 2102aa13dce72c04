#!/usr/bin/env bash
# A unit that is ordered after bundle-server-serving.service starts when the server answers requests, also after a crash.
# When the server cannot serve, the start of that service fails at once.
#
# usage: systemd_serving_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"

note=var/log/application

prepare() {
    local name
    for name in tuner radio away; do
        put_bundle "$name"
    done
    # Notes whether the server answers. Status 3 means that it knows no such bundle.
    cat > "$root/etc/systemd/system/application.service" <<END
[Unit]
Requires=bundle-server-serving.service
After=bundle-server-serving.service

[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/sh -c 'bundlectl delete there-is-no-such-bundle; echo \$\$? > /$note.new; mv /$note.new /$note'
END
    ln -s ../application.service "$root/etc/systemd/system/multi-user.target.wants/"
}

is() {
    [ "$(manager is-active "$1")" = "$2" ]
}

# The unit's start must fail, and soon.
fails_at_once() {
    local begin=$SECONDS
    ! timeout 30 chroot "$root" systemctl start bundle-server-serving || fail "it says that the server serves: $1"
    [ $((SECONDS - begin)) -lt 15 ] || fail "it takes $((SECONDS - begin)) seconds to tell: $1"
    manager stop bundle-server-serving bundle-server
}

has_said() {
    chroot "$root" journalctl --unit=bundle-server-serving | grep -q "$1"
}

observe() {
    local server
    await test -e "$root/$note" || fail "the unit ordered after the serving server is not started"
    [ "$(cat "$root/$note")" = 3 ] || fail "it is started before the server serves: $(cat "$root/$note")"
    is bundle-server-serving active || fail "the unit is not active"

    rm "$root/$note"
    server=$(running sbin/bundle_server)
    kill -KILL "$server"
    await another_than "$server" || fail "a server that has crashed is not started again"
    await test -e "$root/$note" || fail "the unit that requires the serving server is not started again with it"
    [ "$(cat "$root/$note")" = 3 ] || fail "after a crash it is started before the server serves"
    await is bundle-server-serving active || fail "the unit is not active after a crash"
    manager stop bundle-server
    await is bundle-server-serving inactive || fail "the unit does not end with the server"

    # An item name of under three characters ends the start of the server.
    put_bundle bad
    sed -i 's/bad.sh/b/' "$root/$bundles/bad/BundleManifest.ini"
    fails_at_once "a server that ends while it starts"
    rm -r "${root:?}/$bundles/bad"

    mkdir "$root/etc/empty"
    printf '[global]\nbundle_collection_dir = /etc/empty\n' > "$root/etc/other.ini"
    chroot "$root" /usr/sbin/bundle_server -f /etc/other.ini > /dev/null 2>&1 &
    await serves || fail "the other server does not serve"
    fails_at_once "another server serves"
    await has_said "serves, and not process" || fail "no message names the two servers"
    kill %1
    manager start bundle-server-serving || fail "it does not start when the other server has gone"
    serves || fail "it starts before the server serves"
    echo "started after the serving server, again after a crash, and failed at once when it cannot serve"
}

on_machine "$@"
