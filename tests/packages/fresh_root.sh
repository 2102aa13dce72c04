# Sourced by the tests that install the server. Gives them a machine of their own, made of files of this one, without a network.
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

# Runs the calling script again in new namespaces for mounts and processes, so that nothing of it survives.
enter_machine() {
    [ "$(id -u)" -eq 0 ] || skip "only root can make a mount namespace to install into"
    [ -z "${IN_FRESH_ROOT:-}" ] || return 0
    local namespaces=(unshare --mount --pid --fork --kill-child --mount-proc --propagation private)
    "${namespaces[@]}" true 2> /dev/null || skip "no namespaces for mounts and processes are available"
    IN_FRESH_ROOT=yes exec "${namespaces[@]}" "$BASH" "$0" "$@"
}

# fresh_root: makes $root with the file systems of the kernel and nothing else.
fresh_root() {
    # At a path that every machine has, so that no mount point is left behind.
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

# own_devices: gives the root a /dev of its own, for programs that create files there.
own_devices() {
    local device
    umount -R "$root/dev"
    mount -t tmpfs -o mode=0755 none "$root/dev"
    for device in null zero full random urandom tty; do
        : > "$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
}

# copy_files: copies files of this machine to the fresh root. Reads their names from standard input, one a line.
copy_files() {
    sed -n 's,^/,,p' | tar -C / --no-recursion --ignore-failed-read -cf - -T - 2> /dev/null | tar -C "$root" -xf -
}

# closure PACKAGE...: these packages and their dependencies that are installed here.
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

# depends_of DIRECTORY PACKAGE...: the dependencies of the packages in the directory, one name a word.
depends_of() {
    local directory=$1 name
    shift
    for name in "$@"; do
        dpkg-deb --field "$directory/$name"_*.deb Depends | sed 's/([^)]*)//g; s/[,|]/ /g'
    done
}

# unpack DIRECTORY TARGET PACKAGE...: unpacks the packages in the directory into the target. dpkg-deb itself would replace
# links in the target.
unpack() {
    local directory=$1 target=$2 name
    shift 2
    for name in "$@"; do
        dpkg-deb --fsys-tarfile "$directory/$name"_*.deb | tar -C "$target" --keep-directory-symlink -xf - || return
    done
}

# await COMMAND...: waits until the command succeeds. The limit is meant for a very busy machine.
await() {
    local end=$((SECONDS + 30))
    while ! "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}

# running FILE: the processes that run a file of the fresh root, one id a line. FILE is the end of its path, or an argument.
running() {
    local process
    for process in /proc/[0-9]*; do
        if [[ $(readlink "$process/exe") == *"/$1" ]] || tr '\0' '\n' < "$process/cmdline" | grep -qF "/$1"; then
            basename "$process"
        fi
    done 2> /dev/null
}

# runs FILE NUMBER: whether that many processes run it.
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

# put_bundle NAME: moves a bundle into the collection in one step. Its script runs until it is killed.
put_bundle() {
    local new=$root/var/lib/bundle-server/$1.new
    mkdir -p "$new/bin" "$new/script"
    printf '[global]\nbundle_name = %s\nbundle_load_mode = 0\n\n[item]\nitem_name = %s.sh\n' "$1" "$1" > "$new/BundleManifest.ini"
    # The script's path is an argument of the process, by which the tests find it.
    printf 'while :; do sleep 1; done\n' > "$new/bin/$1.sh"
    if [ $# -eq 2 ]; then
        cp "$2" "$new/bin/$1.so"
        printf '\n[library]\nitem_name = %s.so\nentry_func = SleepForever\n' "$1" >> "$new/BundleManifest.ini"
    fi
    mv "$new" "$root/var/lib/bundle-server/bundles/$1"
}

# put_witness: adds a bundle whose item notes in /var/log/witness, at each SIGTERM, whether the server still runs.
put_witness() {
    put_bundle witness
    # shellcheck disable=SC2016 # expanded by the item, whose parent is the server
    sed -i '1i trap '\''if [ "$(cat /proc/$PPID/comm)" = bundle_server ]; then echo early; else echo late; fi >> /var/log/witness; exit'\'' TERM' \
        "$root/var/lib/bundle-server/bundles/witness/bin/witness.sh"
}

# check_order LOG_DIRECTORY SERVER LINES WHEN: checks that the server has ended before its items, by the log from line
# LINES on, where the end was ordered, and by the notes of the witness.
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

# lose_monitor: adds a bundle whose item leaves the server's process group while the monitor waits for that group. It must
# be the only item.
lose_monitor() {
    local server
    put_bundle away
    printf 'sleep 2\nexec setsid sh -c "while :; do sleep 1; done" /bin/away.sh\n' \
        > "$root/var/lib/bundle-server/bundles/away/bin/away.sh"
    await leads_session bin/away.sh || fail "the item that goes into a session of its own does not run"
    await has_monitor || fail "there is no monitor for the item"
    # After a pause of the server, such as the machine's sleep, the monitor waits again. It finds no child in the group.
    server=$(running sbin/bundle_server)
    kill -STOP "$server"
    await is_stopped "$server" || fail "the server cannot be paused"
    kill -CONT "$server"
    await has_no_monitor || fail "the monitor still runs"
}

# cron COMMAND: runs the lines of the package's crontab that call the command, as cron would.
cron() {
    local line
    grep -E "^[0-9*].*/$1\$|^[0-9*].* $1 " "$root/etc/cron.d/bundle-server" | sed -E 's/^([^ ]+ ){5}root //' > "$root/tmp/lines"
    [ -s "$root/tmp/lines" ] || fail "the crontab does not call $1"
    while read -r line; do
        chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c "$line" < /dev/null
    done < "$root/tmp/lines"
}

# check_service BUNDLE: checks the init script, with a bundle that runs one script.
check_service() {
    local item=bundles/$1/./bin/$1.sh before after status
    service status || fail "\"status\" does not see the server that runs"
    service start > /dev/null || fail "\"start\" fails for a server that runs"
    runs sbin/bundle_server 1 || fail "a second \"start\" has started a second server"

    before=$(running "$item")
    [ -n "$before" ] || fail "the item does not run"
    # With the environment of an item: the script must not take itself for a leftover of the server.
    BUNDLE_SERVER_SERVICE=bundle-server service restart || fail "\"restart\" fails"
    await runs "$item" 1 || fail "after a restart the item runs as: $(running "$item")"
    after=$(running "$item")
    [ "$before" != "$after" ] || fail "a restart has not started the item again"

    # After a crash the item still runs. The next start must not start it twice.
    kill -KILL "$(cat "$root/run/bundle-server.pid")"
    await runs sbin/bundle_server 0
    status=0
    service status || status=$?
    [ $status -eq 1 ] || fail "\"status\" of a dead server with a living item ends with $status"
    runs "$item" 1 || fail "the item has not survived the server"
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
