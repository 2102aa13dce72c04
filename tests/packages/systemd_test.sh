#!/usr/bin/env bash
# The unit under systemd itself, which is the first process of a machine of its own: a server that crashes is started
# again without doubling an item, stopping it ends all that it has left, and its restrictions let bundles work.
#
# usage: systemd_test.sh PACKAGE
set -uo pipefail
root= # made by fresh_root

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
package=$1
bundles=var/lib/bundle-server/bundles

# A control group in which systemd may do as it likes.
take_control_group() {
    local mounted
    mounted=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
    group=$mounted/bundle-server-test.$$
    if [ -z "$mounted" ] || ! mkdir "$group" 2> /dev/null; then
        skip "no control group (version 2) can be made"
    fi
    trap leave EXIT
    trap 'exit 1' INT TERM HUP
}

leave() {
    local tries
    if [ -n "${machine:-}" ]; then
        kill -KILL "$machine" 2> /dev/null
        wait "$machine" 2> /dev/null
    fi
    for ((tries = 0; tries < 100; ++tries)); do
        echo 1 2> /dev/null > "$group/cgroup.kill"
        find "$group" -depth -type d -exec rmdir {} + 2> /dev/null
        [ -d "$group" ] || break
        sleep 0.1
    done
    rm -rf "$notes"
}

# Starts the machine and waits for what it has noted.
run_machine() {
    notes=$(mktemp -d)
    (
        echo "$BASHPID" > "$group/cgroup.procs" || exit 1
        IN_MACHINE=$notes exec unshare --mount --pid --fork --kill-child --cgroup --mount-proc --propagation private \
            "$BASH" "$0" "$package"
    ) > "$notes/console" 2>&1 &
    machine=$!
    local tries
    for ((tries = 0; tries < 1500; ++tries)); do
        [ ! -e "$notes/result" ] || break
        kill -0 $machine 2> /dev/null || break
        sleep 0.1
    done
    cat "$notes/said" 2> /dev/null
    [ -e "$notes/result" ] || { echo "FAILED: the machine has ended"; tail -n 40 "$notes/console"; exit 1; }
    exit "$(cat "$notes/result")"
}

# A root with systemd, without the services that it usually starts, and the package's files.
make_root() {
    local device
    fresh_root
    umount -R "$root/dev"
    mount -t tmpfs -o mode=0755 none "$root/dev"
    for device in null zero full random urandom tty; do
        : > "$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
    mkdir -p "$root"/sys "$root"/var/log "$root"/etc/systemd/system/multi-user.target.wants
    mount -t sysfs none "$root/sys"
    mount -t cgroup2 none "$root/sys/fs/cgroup"
    # shellcheck disable=SC2046 # one package a word
    dpkg-query -L $(closure systemd dash coreutils util-linux grep sed \
        $(dpkg-deb --field "$package" Depends | sed 's/([^)]*)//g; s/,/ /g')) |
        grep -E '^/(usr/)?(s?bin|lib(64)?)/' | grep -v '/systemd/system/' | sort -u | copy_files
    cp -RL /lib/systemd/system/{basic,local-fs,local-fs-pre,multi-user,paths,shutdown,slices,sockets,sysinit,timers,umount}.target \
        "$root/usr/lib/systemd/system/"
    dpkg-deb --extract "$package" "$root/tmp/package"
    cp -R "$root"/tmp/package/. "$root/"
    ln -s /usr/lib/systemd/system/multi-user.target "$root/etc/systemd/system/default.target"
    ln -s /usr/lib/systemd/system/bundle-server.service "$root/etc/systemd/system/multi-user.target.wants/"
    : > "$root/etc/machine-id"
    echo "ZQ_LOG_FILE=/var/log/bundle-server/bundle-server.log" > "$root/etc/default/bundle-server"
}

limit() {
    sed -n 's/^Max open files *\([0-9]*\).*/\1/p' "/proc/$(running sbin/bundle_server)/limits"
}

# another_than PID: whether a server runs that is another process.
another_than() {
    [[ -n $(running sbin/bundle_server) && $(running sbin/bundle_server) != "$1" ]]
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

    chroot "$root" bundlectl delete radio || fail "a bundle cannot be deleted"
    [ ! -e "$root/$bundles/radio" ] || fail "the deleted bundle is still there"
    chroot "$root" systemctl stop bundle-server || fail "it cannot be stopped"
    for program in sbin/bundle_server bin/tuner.sh bin/away.sh; do
        runs "$program" 0 || fail "after a stop there still is $program: $(running "$program")"
    done
    echo "started again after a crash, and stopped, with each item once and then none"
}

if [ -z "${IN_MACHINE:-}" ]; then
    [ "$(id -u)" -eq 0 ] || skip "only root may have a machine of its own"
    [ -x /lib/systemd/systemd ] || skip "there is no systemd"
    take_control_group
    run_machine
fi

make_root
put_bundle tuner
put_bundle away
# shellcheck disable=SC2016 # expanded on the machine
printf 'exec setsid sh -c "while :; do sleep 1; done" /bin/away.sh\n' > "$root/$bundles/away/bin/away.sh"
put_bundle radio
printf '#!/bin/sh\ntouch /etc/installed\ntouch /usr/installed\n' > "$root/$bundles/radio/script/install.sh"
chmod 755 "$root/$bundles/radio/script/install.sh"
(
    (observe) > "$IN_MACHINE/said" 2>&1
    echo $? > "$IN_MACHINE/result.new"
    mv "$IN_MACHINE/result.new" "$IN_MACHINE/result"
) &
cd "$root" || exit 1
# systemd is to be the first process of its machine, in a container as far as it can tell.
exec env -i container=test PATH=/usr/sbin:/usr/bin chroot "$root" /lib/systemd/systemd --log-target=console --show-status=no
