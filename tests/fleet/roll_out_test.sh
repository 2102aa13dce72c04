#!/usr/bin/env bash
# The example play rolls a bundle out in waves. It stops at a wave with a device that goes back and one that loses its
# connection in the middle, and goes on when it is repeated, until a device is out of disk. There are four devices, and ten
# in the long form. Afterwards check mode, diff mode, a roll-back and a removal.
#
# usage: roll_out_test.sh PACKAGES COLLECTION
set -uo pipefail
fleet= # set by make_fleet

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/devices.sh"
# shellcheck disable=SC2034 # for start_device
packages=$1
count=4
[ -z "${BUNDLE_SERVER_LONG_TESTS:-}" ] || count=10
enter_fleet "$@"
make_fleet "$2"
failing=2
lossy=3
full=4
waves="[1, 2, '100%']"
if [ "$count" -gt 4 ]; then
    full=8
    waves="[1, 3, '100%']" # the same as without the variable
fi

# make_version NUMBER: a bundle whose item shows its version. Version 2 is too large for one device. On some devices it
# does not run or breaks the connection.
make_version() {
    local new=$fleet/version$1/player
    mkdir -p "$new/bin" "$new/script"
    printf '[global]\nbundle_name = player\nbundle_load_mode = 0\n\n[item]\nitem_name = player.sh\n' > "$new/BundleManifest.ini"
    echo "$1" > "$new/bin/version"
    printf '#!/bin/sh\nwhile :; do sleep 1; done\n' > "$new/bin/player.sh"
    printf '#!/bin/sh\nexit 0\n' > "$new/script/update.sh"
    if [ "$1" = 2 ]; then
        printf '#!/bin/sh\n[ ! -e /etc/broken ] || exit 1\nwhile :; do sleep 1; done\n' > "$new/bin/player.sh"
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
    play bundle_server.fleet.roll_out -e "archive=$fleet/player-$version.tar.gz" -e key=/etc/bundle-server/release.pub -e soak=1s \
        -e "{\"waves\": $waves}" "$@"
}

# version_of NUMBER: of the device's bundle.
version_of() {
    cat "$(root_of "$1")/var/lib/bundle-server/bundles/player/bin/version"
}

runs_version() {
    local device found
    for device in "${@:2}"; do
        found=$(version_of "$device")
        [ "$found" = "$1" ] || fail "device $device has the version \"$found\", not $1"
        on "$device" bundlectl status player > "$fleet/status" || fail "device $device: $(cat "$fleet/status")"
    done
}

# expect_recap COUNTS DEVICE...
expect_recap() {
    local device
    for device in "${@:2}"; do
        [[ $(recap "$device") == *"$1" ]] || fail "device $device: \"$(recap "$device")\", not \"$1\""
    done
}

# The machine on which bundles are made.
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
serve() {
    await answers "$1" || fail "device $1 cannot be reached: $(cat "$fleet/$1/log")"
    on "$1" '/etc/init.d/bundle-server start > /dev/null && bundlectl wait --for serving --timeout 60' || fail "device $1 does not serve"
    on "$1" bundlectl put --soak 1s /tmp/player-1.tar.gz > /dev/null || fail "device $1 does not take the first version"
}
for version in 1 2 3; do make_version $version; done
servers=()
for device in "${devices[@]}"; do
    cp "$fleet/player-1.tar.gz" "$(root_of "$device")/tmp/"
    serve "$device" &
    servers+=($!)
done
for server in "${servers[@]}"; do wait "$server" || exit 1; done

runs_version 1 "${devices[@]}"

# In the second wave, the new version does not run on one device, and another device loses its connection.
on $failing touch /etc/broken
on $lossy touch /etc/lossy
! roll_out 2 || fail "the roll-out has not failed"
expect_recap "changed=3 unreachable=0 failed=0" 1
expect_recap "failed=1" $failing
[[ $(recap $lossy) != *"unreachable=0 failed=0" ]] || fail "the device out of reach counts as good: $(recap $lossy)"
for device in $full $(seq 5 "$count"); do
    [ -z "$(recap "$device")" ] || fail "a third wave was begun: $(recap "$device")"
    runs_version 1 "$device"
done
on $lossy rm /etc/lossy
runs_version 2 1
runs_version 1 $failing
await on $lossy bundlectl status player > "$fleet/status" || fail "device $lossy does not run the bundle any more"
[[ $(version_of $lossy) == [12] ]] || fail "device $lossy has the version \"$(version_of $lossy)\""
on $failing rm /etc/broken

! roll_out 2 || fail "the roll-out has not failed with a device out of disk"
expect_recap "changed=0 unreachable=0 failed=0" 1
expect_recap "failed=1" $full
grep -q 'No space left' "$fleet/said" || fail "the play does not say what device $full lacks"
runs_version 1 $full
mount -o remount,size=16m "$(root_of $full)/var/lib/bundle-server"
roll_out 2 --limit "device1,device$full" || fail "the roll-out cannot be ended"
runs_version 2 "${devices[@]}"
expect_recap "changed=0 unreachable=0 failed=0" 1

# Check mode shows what would change, and changes nothing.
roll_out 3 --check --diff --limit device1 || fail "check mode fails"
grep -q '^-bin/version ' "$fleet/said" || fail "diff mode does not show the file that differs"
runs_version 2 1

cat > "$fleet/back.yml" <<'END'
- hosts: all
  gather_facts: false
  tasks:
    - bundle_server.fleet.bundle: {name: player, state: rolled_back, soak: 1s}
    - ansible.builtin.command: grep -x 1 /var/lib/bundle-server/bundles/player/bin/version
      changed_when: false
    - bundle_server.fleet.bundle: {name: player, state: absent}
    - bundle_server.fleet.bundle: {name: player, state: absent}
END
play "$fleet/back.yml" --limit device1 || fail "the bundle cannot be rolled back and removed"
expect_recap "changed=2 unreachable=0 failed=0" 1
[ ! -e "$(root_of 1)/var/lib/bundle-server/bundles/player" ] || fail "device 1 still has the bundle"
echo "$count devices: rolled out in waves, stopped, gone on with, rolled back, removed"
