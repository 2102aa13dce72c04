#!/usr/bin/env bash
# RAUC and SWUpdate install a bundle with the handlers of packaging/updaters. The bundle runs. An update whose bundle
# does not run fails and leaves the old one. In the long form, SWUpdate installs forty updates, one after the other.
#
# usage: updater_test.sh PACKAGES COLLECTION
set -uo pipefail
fleet= # made by make_fleet

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/devices.sh"
# shellcheck disable=SC2034 # for start_device
packages=$1
enter_fleet "$@"
for program in rauc dbus-daemon mksquashfs openssl swupdate cpio; do
    command -v $program > /dev/null || skip "there is no $program; script/install-dependencies --fleet"
done
make_fleet "$2"
updaters=$2/../updaters

# make_version NUMBER: version 2 does not run.
make_version() {
    local new=$fleet/version$1/player
    mkdir -p "$new/bin" "$new/script"
    printf '[global]\nbundle_name = player\nbundle_load_mode = 0\n\n[item]\nitem_name = player.sh\n' > "$new/BundleManifest.ini"
    echo "$1" > "$new/bin/version"
    printf '#!/bin/sh\nwhile :; do sleep 1; done\n' > "$new/bin/player.sh"
    [ "$1" != 2 ] || printf '#!/bin/sh\nexit 1\n' > "$new/bin/player.sh"
    chmod 755 "$new/bin/player.sh"
    "$fleet/tools/usr/bin/bundlectl" pack "$new" -o "$fleet/player-$1.tar.gz" --key "$fleet/release.key" > /dev/null ||
        fail "version $1 cannot be packed"
}

runs_version() {
    [ "$(on 1 cat /var/lib/bundle-server/bundles/player/bin/version)" = "$1" ] || fail "it is not version $1"
    on 1 'bundlectl status player > /dev/null' || fail "version $1 does not run: $(on 1 bundlectl status player)"
}

# update COMMAND...: on the device; its output is shown when the test fails.
update() {
    timeout 100 ssh -F none -i "$fleet/keys/user" -o "UserKnownHostsFile=$fleet/keys/known" root@127.1.0.1 "$@" > "$fleet/said" 2>&1
}

mkdir "$fleet/tools"
unpack "$packages" "$fleet/tools" bundlectl bundlectl-author || fail "the packages cannot be unpacked"
"$fleet/tools/usr/bin/bundlectl" keygen "$fleet/release" > "$fleet/said" 2>&1 || fail "no keys can be made"
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=update -keyout "$fleet/update.key" -out "$fleet/update.pem" \
    -addext keyUsage=digitalSignature -addext extendedKeyUsage=emailProtection,codeSigning 2> /dev/null || fail "there is no certificate"
start_device 1 size=16m
root=$(root_of 1)
cp "$fleet/release.pub" "$root/etc/bundle-server/"
cp "$fleet/update.pem" "$root/etc/"
await answers 1 || fail "the device cannot be reached: $(cat "$fleet/1/log")"
on 1 '/etc/init.d/bundle-server start > /dev/null && bundlectl wait --for serving --timeout 60' || fail "the server does not serve"
for version in 1 2 3; do make_version $version; done


# Shortens the times for the test. All other settings are the handlers' defaults.
cat > "$root/usr/local/bin/bundlectl" <<'END'
#!/bin/sh
verb=$1
shift
[ "$verb" != put ] || set -- --soak 1s "$@"
exec /usr/bin/bundlectl "$verb" "$@"
END
chmod 755 "$root/usr/local/bin/bundlectl"

# make_images UPDATER EXTENSION
make_images() {
    local version
    for version in 1 2 3; do
        "$updaters/$1/make-image" "$fleet/player-$version.tar.gz" "$fleet/served/player-$version.$2" device "$version" \
            "$fleet/update.pem" "$fleet/update.key" > "$fleet/said" 2>&1 || fail "no update for $1 can be made"
    done
}

mkdir "$fleet/served"
make_images rauc raucb
make_images swupdate swu
cp "$fleet/served"/* "$root/tmp/"

mkdir -p "$root/etc/rauc" "$root/run/dbus"
cat > "$root/etc/rauc/system.conf" <<'END'
[system]
compatible=device
bootloader=noop
[slot.system.0]
device=/dev/null
bootname=system
[keyring]
path=/etc/update.pem
END
on 1 'dbus-daemon --system --fork && { rauc --override-boot-slot=system service > /tmp/rauc.log 2>&1 & }'
has_service() {
    on 1 dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner string:de.pengutronix.rauc 2> /dev/null |
        grep -q 'boolean true'
}
await has_service || fail "RAUC has no service: $(cat "$root/tmp/rauc.log")"
update rauc install /tmp/player-1.raucb || fail "RAUC fails: $(tail -n 20 "$root/tmp/rauc.log")"
runs_version 1
! update rauc install /tmp/player-2.raucb || fail "RAUC reports success for an update that does not run"
runs_version 1

(cd "$fleet/served" && exec python3 -m http.server --bind 127.1.0.100 8000) > "$fleet/server.log" 2>&1 &
is_served() {
    on 1 true < /dev/tcp/127.1.0.100/8000
} 2> /dev/null
await is_served || fail "there is no server of updates: $(cat "$fleet/server.log")"

# load VERSION: the device loads and installs it.
load() {
    update "swupdate -v -k /etc/update.pem -H board:device -d '-u http://127.1.0.100:8000/player-$1.swu'"
}

# install_file VERSION: the device already has it.
install_file() {
    update "swupdate -v -k /etc/update.pem -H board:device -i /tmp/player-$1.swu"
}

load 3 || fail "SWUpdate does not load version 3"
runs_version 3
! install_file 2 || fail "SWUpdate reports success for an update that does not run"
runs_version 3
install_file 1 || fail "SWUpdate does not install version 1"
runs_version 1
[ -z "$(ls "$root/var/cache/bundle-server")" ] || fail "the handler leaves $(ls "$root/var/cache/bundle-server")"
if [ -n "${BUNDLE_SERVER_LONG_TESTS:-}" ]; then
    for round in {1..10}; do
        for way in load install_file; do
            for version in 3 1; do
                $way $version || fail "round $round: SWUpdate fails with $way $version"
                runs_version $version
            done
        done
    done
fi
echo "brought by RAUC and SWUpdate; an update that does not run fails and changes nothing"
