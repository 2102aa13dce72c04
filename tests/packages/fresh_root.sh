# Sourced by the tests that install the server: a machine of their own, made of files of this one, without a network.
# shellcheck shell=bash

skip() {
    echo "skipped: $*"
    exit 77
}

fail() {
    echo "FAILED: $*"
    [ ! -r "$root/var/log/bundle-server/bundle-server.log" ] || tail -n 40 "$root/var/log/bundle-server/bundle-server.log"
    exit 1
}

# Runs the script that calls it again, with namespaces of its own for mounts and processes: nothing of it outlives it.
enter_machine() {
    [ "$(id -u)" -eq 0 ] || skip "only root may have a mount namespace in which it can install"
    [ -z "${IN_FRESH_ROOT:-}" ] || return 0
    local namespaces=(unshare --mount --pid --fork --kill-child --mount-proc --propagation private)
    "${namespaces[@]}" true 2> /dev/null || skip "no namespaces for mounts and processes are available"
    IN_FRESH_ROOT=yes exec "${namespaces[@]}" "$BASH" "$0" "$@"
}

# fresh_root: makes $root with the file systems of the kernel and nothing else.
fresh_root() {
    # In a place that every machine has, so that no directory is left that was mounted on.
    root=/mnt
    mount -t tmpfs -o mode=0755 none "$root"
    mkdir -p "$root"/usr/{bin,sbin,lib,lib64} "$root"/{dev,proc,etc,run,var/lib,mnt,root}
    mkdir -m 1777 "$root/tmp"
    local directory
    for directory in bin sbin lib lib64; do
        ln -s "usr/$directory" "$root/$directory"
    done
    mount --rbind /dev "$root/dev"
    mount --rbind /proc "$root/proc"
    echo "root:x:0:0:root:/root:/bin/sh" > "$root/etc/passwd"
    echo "root:x:0:" > "$root/etc/group"
}

# own_devices: a /dev that is not this machine's, for programs that put something there.
own_devices() {
    local device
    umount -R "$root/dev"
    mount -t tmpfs -o mode=0755 none "$root/dev"
    for device in null zero full random urandom tty; do
        : > "$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
}

# copy_files: copies this machine's files, whose names are read, one a line, to the fresh root.
copy_files() {
    sed -n 's,^/,,p' | tar -C / --no-recursion --ignore-failed-read -cf - -T - 2> /dev/null | tar -C "$root" -xf -
}

# closure PACKAGE...: these packages and what they depend on, as far as it is installed here.
closure() {
    # shellcheck disable=SC2016 # dpkg-query's own variables
    dpkg-query -W -f='${Package}\t${Pre-Depends}, ${Depends}\t${Provides}\n' | awk -F '\t' -v wanted="$*" '
        function name(text) { sub(/^ */, "", text); sub(/[ (:].*/, "", text); return text }
        {
            needs[$1] = $2
            count = split($3, names, ",")
            for (i = 1; i <= count; ++i) provider[name(names[i])] = $1
        }
        END {
            count = split(wanted, queue, " ")
            for (i = 1; i <= count; ++i) {
                package = (queue[i] in needs) ? queue[i] : provider[queue[i]]
                if (package == "" || package in taken) continue
                taken[package] = 1
                print package
                groups = split(needs[package], group, ",")
                for (g = 1; g <= groups; ++g) {
                    choices = split(group[g], choice, "|")
                    for (c = 1; c <= choices; ++c) {
                        if (name(choice[c]) in needs || name(choice[c]) in provider) {
                            queue[++count] = name(choice[c])
                            break
                        }
                    }
                }
            }
        }'
}

# depends_of DIRECTORY PACKAGE...: what the packages in the directory depend on, a name a word.
depends_of() {
    local directory=$1 name
    shift
    for name in "$@"; do
        dpkg-deb --field "$directory/$name"_*.deb Depends | sed 's/([^)]*)//g; s/[,|]/ /g'
    done
}

# unpack DIRECTORY TARGET PACKAGE...: puts the files of the packages in the directory into the target. Not by dpkg-deb
# itself, which would replace links that the target has.
unpack() {
    local directory=$1 target=$2 name
    shift 2
    for name in "$@"; do
        dpkg-deb --fsys-tarfile "$directory/$name"_*.deb | tar -C "$target" --keep-directory-symlink -xf - || return
    done
}

# await COMMAND...: until the command succeeds. The bound is for a machine that is very busy.
await() {
    local end=$((SECONDS + 30))
    while ! "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}

# The processes that run a file of the fresh root, named by the end of its path or by an argument: one id a line.
running() {
    local process
    for process in /proc/[0-9]*; do
        if [[ $(readlink "$process/exe") == *"/$1" ]] || tr '\0' '\n' < "$process/cmdline" | grep -qF "/$1"; then
            basename "$process"
        fi
    done 2> /dev/null
}

# runs FILE NUMBER: whether so many processes run it.
runs() {
    [ "$(running "$1" | wc -l)" -eq "$2" ]
}

service() {
    chroot "$root" /etc/init.d/bundle-server "$@"
}

# Whether the server answers requests: it knows that there is no such bundle.
serves() {
    local status=0
    chroot "$root" /usr/bin/bundlectl delete there-is-no-such-bundle 2> /dev/null || status=$?
    [ $status -eq 3 ]
}

# put_bundle NAME: a bundle with a script that runs until it is killed, moved into the collection at once.
put_bundle() {
    local new=$root/var/lib/bundle-server/$1.new
    mkdir -p "$new/bin" "$new/script"
    printf '[global]\nbundle_name = %s\nbundle_load_mode = 0\n\n[item]\nitem_name = %s.sh\n' "$1" "$1" > "$new/BundleManifest.ini"
    # With an argument of its own, so that the process is found by it.
    printf 'while :; do sleep 1; done\n' > "$new/bin/$1.sh"
    if [ $# -eq 2 ]; then
        cp "$2" "$new/bin/$1.so"
        printf '\n[library]\nitem_name = %s.so\nentry_func = SleepForever\n' "$1" >> "$new/BundleManifest.ini"
    fi
    mv "$new" "$root/var/lib/bundle-server/bundles/$1"
}

# put_witness: a bundle whose item notes at each SIGTERM, in /var/log/witness, whether the server is still there.
put_witness() {
    put_bundle witness
    # shellcheck disable=SC2016 # expanded by the item, whose parent is the server
    sed -i '1i trap '\''if [ "$(cat /proc/$PPID/comm)" = bundle_server ]; then echo early; else echo late; fi >> /var/log/witness; exit'\'' TERM' \
        "$root/var/lib/bundle-server/bundles/witness/bin/witness.sh"
}

# check_order LOG_DIRECTORY SERVER LINES WHEN: the server has ended before its items. The log since the order to end,
# from line LINES on, and the notes of the witness show it.
check_order() {
    local records
    records=$(tail -n +$(($3 + 1)) "$1/bundle-server/bundle-server.log" | awk -v server="$2" '$5 == server')
    ! grep -E 'relaunch|termination| ERROR ' <<< "$records" || fail "$4: the server has taken the end of an item for a crash"
    [ "$(cat "$1/witness")" = late ] || fail "$4: what the item saw at each SIGTERM: $(cat "$1/witness")"
    rm "$1/witness"
}

has_monitor() {
    grep -qx bundle_monitor "/proc/$(running sbin/bundle_server)/task"/*/comm
}

has_no_monitor() {
    ! has_monitor
}

leads_session() {
    local pid
    pid=$(running "$1")
    [ -n "$pid" ] && [ "$(ps -o sid= -p "$pid" | tr -d ' ')" = "$pid" ]
}

is_stopped() {
    grep -q '^State:.T' "/proc/$1/status"
}

# lose_monitor: a bundle whose item leaves the server's process group when the monitor has long been waiting for that
# group. It must be the only item.
lose_monitor() {
    local server
    put_bundle away
    printf 'sleep 2\nexec setsid sh -c "while :; do sleep 1; done" /bin/away.sh\n' \
        > "$root/var/lib/bundle-server/bundles/away/bin/away.sh"
    await leads_session bin/away.sh || fail "the item that goes into a session of its own does not run"
    await has_monitor || fail "there is no monitor for the item"
    # A pause of the server, such as the machine's sleep, has the monitor look again: there is no child in the group.
    server=$(running sbin/bundle_server)
    kill -STOP "$server"
    await is_stopped "$server" || fail "the server cannot be paused"
    kill -CONT "$server"
    await has_no_monitor || fail "the monitor has survived"
}

# cron COMMAND: runs the lines of the package's crontab that call it, as cron would.
cron() {
    local line
    grep -E "^[0-9*].*/$1\$|^[0-9*].* $1 " "$root/etc/cron.d/bundle-server" | sed -E 's/^([^ ]+ ){5}root //' > "$root/tmp/lines"
    [ -s "$root/tmp/lines" ] || fail "the crontab does not call $1"
    while read -r line; do
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c "$line" < /dev/null
    done < "$root/tmp/lines"
}

# check_service BUNDLE: what holds for the init script, with a bundle that runs one script.
check_service() {
    local item=bundles/$1/./bin/$1.sh before after status
    service status || fail "\"status\" does not see the server that runs"
    service start > /dev/null || fail "\"start\" fails for a server that runs"
    runs sbin/bundle_server 1 || fail "a second \"start\" has started a second server"

    before=$(running "$item")
    [ -n "$before" ] || fail "the item does not run"
    # As an item would ask for it: the script must not take itself for what the server has left.
    BUNDLE_SERVER_SERVICE=bundle-server service restart || fail "\"restart\" fails"
    await runs "$item" 1 || fail "after a restart the item runs as: $(running "$item")"
    after=$(running "$item")
    [ "$before" != "$after" ] || fail "a restart has not started the item again"

    # A crash leaves the item, and the next start must not double it.
    kill -KILL "$(cat "$root/run/bundle-server.pid")"
    await runs sbin/bundle_server 0
    status=0
    service status || status=$?
    [ $status -eq 1 ] || fail "\"status\" of a dead server with a living item ends with $status"
    runs "$item" 1 || fail "the item has not outlived the server"
    service start || fail "\"start\" fails after a crash"
    await serves || fail "the server does not serve after a crash"
    await runs "$item" 1 || fail "after a crash and a start the item runs as: $(running "$item")"
    [ "$(running "$item")" != "$after" ] || fail "the item of the crashed server is still there"

    service stop || fail "\"stop\" fails"
    runs sbin/bundle_server 0 || fail "\"stop\" has left the server"
    runs "$item" 0 || fail "\"stop\" has left the item"
    service stop || fail "\"stop\" fails when nothing runs"
    status=0
    service status || status=$?
    [ $status -eq 3 ] || fail "\"status\" of a stopped server ends with $status"
}
