#!/usr/bin/env bash
# The example play rolls a bundle out in waves. It stops at a device that goes back, and goes on when it is repeated. In the
# long form there are ten devices: one of them is made to fail, one loses its connection in the middle, one is out of disk.
# In the short form there are four, of which one is made to fail. Afterwards check mode, diff mode, a roll-back and a removal.
#
# usage: roll_out_test.sh PACKAGES COLLECTION
set -uo pipefail
fleet= # made by make_fleet

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/devices.sh"
# shellcheck disable=SC2034 # for start_device
packages=$1
count=4
[ -z "${BUNDLE_SERVER_LONG_TESTS:-}" ] || count=10
enter_fleet "$@"
make_fleet "$2"
failing=3
lossy=6
full=8

# make_version NUMBER: a bundle whose item tells its version. Version 2 is too large for one device, and on some devices it
# does not run or takes the connection away.
make_version() {
    local new=$fleet/version$1/player
    mkdir -p "$new/bin" "$new/script"
    printf '[global]\nbundle_name = player\nbundle_load_mode = 0\n\n[item]\nitem_name = player.sh\n' > "$new/BundleManifest.ini"
    echo "$1" > "$new/bin/version"
    printf '#!/bin/sh\nwhile :; do sleep 1; done\n' > "$new/bin/player.sh"
    printf '#!/bin/sh\nexit 0\n' > "$new/script/update.sh"
    if [ "$1" = 2 ]; then
        printf '#!/bin/sh\n[ ! -e /etc/broken ] || exit 2\nwhile :; do sleep 1; done\n' > "$new/bin/player.sh"
        printf '#!/bin/sh\n[ ! -e /etc/lossy ] || pkill -f "^sshd: root"\nexit 0\n' > "$new/script/update.sh"
        head -c 1000000 /dev/urandom > "$new/bin/sounds"
    fi
    chmod 755 "$new"/bin/player.sh "$new/script/update.sh"
    "$fleet/tools/usr/bin/bundlectl" pack "$new" -o "$fleet/player-$1.tar.gz" --key "$fleet/release.key" > /dev/null ||
        fail "version $1 cannot be packed"
}

# roll_out VERSION [OPTION...]
roll_out() {
    local version=$1
    shift
    play bundle_server.fleet.roll_out -e "archive=$fleet/player-$version.tar.gz" -e key=/etc/bundle-server/release.pub -e soak=2s "$@"
}

# version_of NUMBER: of the device's bundle, by its files and by the item that runs.
version_of() {
    on "$1" 'cat /var/lib/bundle-server/bundles/player/bin/version'
}

runs_version() {
    local device found
    for device in "${@:2}"; do
        found=$(version_of "$device")
        [ "$found" = "$1" ] || fail "device $device has the version \"$found\", not $1"
        on "$device" 'bundlectl status player > /dev/null' || fail "device $device: $(on "$device" bundlectl status player)"
    done
}

# expect_recap COUNTS DEVICE...
expect_recap() {
    local device
    for device in "${@:2}"; do
        [[ $(recap "$device") == *"$1" ]] || fail "device $device: \"$(recap "$device")\", not \"$1\""
    done
}

# The machine where bundles are made.
mkdir "$fleet/tools"
unpack "$packages" "$fleet/tools" bundlectl bundlectl-author || fail "the packages cannot be unpacked"
"$fleet/tools/usr/bin/bundlectl" keygen "$fleet/release" > "$fleet/said" 2>&1 || fail "no keys can be made"

mapfile -t devices < <(seq "$count")
for device in "${devices[@]}"; do
    size=16m
    [ "$device" != $full ] || size=600k
    start_device "$device" "size=$size"
    cp "$fleet/release.pub" "$(root_of "$device")/etc/bundle-server/"
done
for device in "${devices[@]}"; do
    await answers "$device" || fail "device $device cannot be reached: $(cat "$fleet/$device/log")"
    on "$device" '/etc/init.d/bundle-server start > /dev/null && bundlectl wait --for serving --timeout 60' || fail "device $device does not serve"
done
for version in 1 2 3; do make_version $version; done

roll_out 1 || fail "the first version cannot be rolled out"
runs_version 1 "${devices[@]}"

# The second wave has a device on which the new version does not run.
on $failing touch /etc/broken
! roll_out 2 || fail "the roll-out has not failed"
expect_recap "changed=2 unreachable=0 failed=0" 1 2 4
expect_recap "failed=1" $failing
runs_version 2 1 2 4
runs_version 1 $failing
if [ "$count" -gt 4 ]; then
    [ -z "$(recap 5)" ] || fail "a third wave was begun: $(recap 5)"
    runs_version 1 5 6 7 8 9 10
fi
on $failing rm /etc/broken

if [ "$count" -gt 4 ]; then
    on $lossy touch /etc/lossy
    ! roll_out 2 || fail "the roll-out has not failed with a device out of disk and one out of reach"
    on $lossy rm /etc/lossy
    runs_version 2 1 2 3 4 5 7 9 10
    [[ $(recap $lossy) != *"unreachable=0 failed=0" ]] || fail "the device out of reach counts as good: $(recap $lossy)"
    expect_recap "failed=1" $full
    grep -q 'No space left' "$fleet/said" || fail "the play does not say what device $full lacks"
    runs_version 1 $full
    await on $lossy bundlectl status player || fail "device $lossy does not run the bundle any more"
    [[ $(version_of $lossy) == [12] ]] || fail "device $lossy has the version \"$(version_of $lossy)\""
    mount -o remount,size=16m "$(root_of $full)/var/lib/bundle-server"
fi
roll_out 2 || fail "the roll-out cannot be ended"
runs_version 2 "${devices[@]}"
roll_out 2 || fail "the roll-out cannot be repeated"
expect_recap "changed=0 unreachable=0 failed=0" "${devices[@]}"

# Check mode shows what would change, and changes nothing.
roll_out 3 --check --diff || fail "check mode fails"
grep -q '^-bin/version ' "$fleet/said" || fail "diff mode does not show the file that differs"
runs_version 2 "${devices[@]}"

cat > "$fleet/back.yml" <<'END'
- hosts: all
  gather_facts: false
  tasks:
    - bundle_server.fleet.bundle: {name: player, state: rolled_back, soak: 1s}
END
play "$fleet/back.yml" || fail "the bundle cannot be rolled back"
expect_recap "changed=1 unreachable=0 failed=0" "${devices[@]}"
runs_version 1 "${devices[@]}"

cat > "$fleet/gone.yml" <<'END'
- hosts: all
  gather_facts: false
  tasks:
    - bundle_server.fleet.bundle: {name: player, state: absent}
END
play "$fleet/gone.yml" || fail "the bundle cannot be removed"
expect_recap "changed=1 unreachable=0 failed=0" "${devices[@]}"
for device in "${devices[@]}"; do
    on "$device" '[ ! -e /var/lib/bundle-server/bundles/player ]' || fail "device $device still has the bundle"
done
play "$fleet/gone.yml" || fail "the removal cannot be repeated"
expect_recap "changed=0 unreachable=0 failed=0" "${devices[@]}"
echo "$count devices: rolled out in waves, stopped, gone on with, rolled back, removed"
