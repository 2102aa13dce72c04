# Sourced, after fresh_root.sh, by the tests that need systemd itself. They get a machine whose first process is systemd,
# with the packages installed and the service enabled.
#
# A test defines prepare, which completes the root before the machine starts, and observe, which looks at the running
# machine from outside. Then it calls on_machine. The machine's /var/log survives it in $notes/log. A test may also define
# look_back, which reads that log: then the machine is shut down after observe.
# shellcheck shell=bash disable=SC2154 # root is made by fresh_root

# shellcheck disable=SC2034 # for the test
bundles=var/lib/bundle-server/bundles

# A control group for systemd to manage.
take_control_group() {
    local mounted
    mounted=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
    group=$mounted/bundle-server-test.$$
    if [ -z "$mounted" ] || ! mkdir "$group" 2> /dev/null; then
        skip "a control group (version 2) cannot be created"
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

# start_machine ARGUMENT...: starts the machine and waits for its notes.
start_machine() {
    notes=$(mktemp -d)
    (
        echo "$BASHPID" > "$group/cgroup.procs" || exit 1
        IN_MACHINE=$notes exec unshare --mount --pid --fork --kill-child --cgroup --mount-proc --propagation private \
            "$BASH" "$0" "$packages" "$@"
    ) > "$notes/console" 2>&1 &
    machine=$!
    local tries
    for ((tries = 0; tries < 5400; ++tries)); do
        [ ! -e "$notes/result" ] || break
        kill -0 "$machine" 2> /dev/null || break
        sleep 0.1
    done
    cat "$notes/said" 2> /dev/null
    [ -e "$notes/result" ] || { echo "FAILED: the machine has ended"; tail -n 40 "$notes/console"; exit 1; }
    result=$(cat "$notes/result")
    if [ "$result" -eq 0 ] && declare -F look_back > /dev/null; then
        await_off || { echo "FAILED: the machine does not shut down"; tail -n 40 "$notes/console"; exit 1; }
        look_back
    fi
    exit "$result"
}

# Waits until the machine has shut down.
await_off() {
    local tries
    for ((tries = 0; tries < 300; ++tries)); do
        kill -0 "$machine" 2> /dev/null || return 0
        sleep 0.1
    done
    return 1
}

# Makes a root with systemd, its journal and the packages' files, without the services that systemd usually starts.
make_root() {
    fresh_root
    own_devices
    mkdir -p "$root"/sys "$root"/var/log "$root"/etc/systemd/system/multi-user.target.wants "$IN_MACHINE/log"
    mount --bind "$IN_MACHINE/log" "$root/var/log"
    mount -t sysfs none "$root/sys"
    mount -t cgroup2 none "$root/sys/fs/cgroup"
    # shellcheck disable=SC2046 # one package a word
    dpkg-query -L $(closure systemd dash coreutils util-linux mount grep sed gzip \
        $(dpkg-query -W -f='${Package} ' logrotate 2> /dev/null) \
        $(depends_of "$packages" bundle-server bundlectl)) |
        grep -E '^/(usr/)?(s?bin|lib(64)?)/' | grep -v '/systemd/system/' | sort -u | copy_files
    cp -RL /lib/systemd/system/{basic,final,local-fs,local-fs-pre,multi-user,paths,poweroff,shutdown,slices,sockets,sysinit,timers,umount}.target \
        /lib/systemd/system/systemd-poweroff.service \
        /lib/systemd/system/systemd-journald{.service,.socket,-dev-log.socket} "$root/usr/lib/systemd/system/"
    mkdir "$root"/usr/lib/systemd/system/{sockets,sysinit}.target.wants
    ln -s ../systemd-journald.socket ../systemd-journald-dev-log.socket "$root/usr/lib/systemd/system/sockets.target.wants/"
    ln -s ../systemd-journald.service "$root/usr/lib/systemd/system/sysinit.target.wants/"
    unpack "$packages" "$root" bundle-server bundlectl
    ln -s /usr/lib/systemd/system/multi-user.target "$root/etc/systemd/system/default.target"
    ln -s /usr/lib/systemd/system/bundle-server.service "$root/etc/systemd/system/multi-user.target.wants/"
    : > "$root/etc/machine-id"
    echo "ZQ_LOG_FILE=/var/log/bundle-server/bundle-server.log" > "$root/etc/default/bundle-server"
}

# on_machine PACKAGES [ARGUMENT...]: prepares and observes the machine, and exits with the status of observe. On the machine
# the test is run again with the same arguments.
on_machine() {
    packages=$1
    shift
    if [ -z "${IN_MACHINE:-}" ]; then
        [ "$(id -u)" -eq 0 ] || skip "only root can start a machine"
        [ -x /lib/systemd/systemd ] || skip "systemd is not installed"
        take_control_group
        start_machine "$@"
    fi
    make_root
    prepare
    (
        (observe) > "$IN_MACHINE/said" 2>&1
        echo $? > "$IN_MACHINE/result.new"
        mv "$IN_MACHINE/result.new" "$IN_MACHINE/result"
        # The end of the machine ends these commands too, so nothing comes after it.
        ! declare -F look_back > /dev/null || manager --no-block poweroff
    ) &
    cd "$root" || exit 1
    # systemd must be the first process of its machine. It treats the machine as a container.
    exec env -i container=test PATH=/usr/sbin:/usr/bin chroot "$root" /lib/systemd/systemd --log-target=console --show-status=no
}

# manager COMMAND...: systemctl on the machine.
manager() {
    chroot "$root" systemctl "$@"
}

# another_than PID: whether a server with another process id runs.
another_than() {
    [[ -n $(running sbin/bundle_server) && $(running sbin/bundle_server) != "$1" ]]
}
