#!/usr/bin/env bash
# The init script on a small device. The device has what "cmake --install" installs, the programs' libraries, and busybox for
# everything else.
#
# usage: init_script_test.sh CMAKE BUILD_DIR
set -uo pipefail
root= # made by fresh_root

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
enter_machine "$@"
busybox=$(command -v busybox) || skip "busybox is not installed"

fresh_root
own_devices
DESTDIR=$root "$1" --install "$2" --prefix /usr > /dev/null || fail "it cannot be installed"
cp "$busybox" "$root/usr/bin/busybox"
for applet in $("$busybox" --list); do
    [ -e "$root/usr/bin/$applet" ] || ln -s busybox "$root/usr/bin/$applet"
done
for program in "$root"/usr/{sbin/bundle_server,bin/bundlectl,libexec/bundle-server/dyn_lib_process_loader} "$busybox"; do
    ldd "$program" | sed -n 's,^[^/]*\(/[^ ]*\) (.*,\1,p'
done | sort -u | while read -r library; do
    mkdir -p "$root/$(dirname "$library")"
    cp -L "$library" "$root/$library"
done
[ "$(readlink "$root/bin/sh")" = busybox ] || fail "the root's shell is not busybox"

put_bundle tuner
service start || fail "it does not start"
await serves || fail "the server does not answer"
await runs bin/tuner.sh 1 || fail "the bundle's script is not run"
[ "$(tr '\0' '\n' < "/proc/$(cat "$root/run/bundle-server.pid")/limits" | sed -n 's/^Max open files *\([0-9]*\).*/\1/p')" -eq 16384 ] ||
    fail "the limit of descriptors is not the one that the script sets"
check_service tuner

# The server ends first, then its items: by SIGTERM, and after ten seconds by SIGKILL.
put_witness
put_bundle deaf
sed -i "1i trap '' TERM" "$root/var/lib/bundle-server/bundles/deaf/bin/deaf.sh"
log=$root/var/log/bundle-server/bundle-server.log
for end in stop restart crash; do
    service start || fail "it does not start"
    await serves || fail "the server does not answer"
    server=$(cat "$root/run/bundle-server.pid")
    lines=$(wc -l < "$log")
    begin=$(date +%s%N)
    if [ $end = crash ]; then
        kill -KILL "$server"
        service start || fail "it does not start after a crash"
    else
        service $end || fail "\"$end\" fails"
    fi
    took=$((($(date +%s%N) - begin) / 1000000))
    check_order "$root/var/log" "$server" "$lines" "$end"
    if [ $end = stop ]; then
        [ $took -ge 10000 ] || fail "an item that ignores SIGTERM is killed after $took ms"
        rm -r "$root"/var/lib/bundle-server/bundles/deaf
    fi
done
rm -r "$root"/var/lib/bundle-server/bundles/witness
service stop

# The script also ends an item that has left the server's session and process group.
printf 'exec setsid sh -c "while :; do sleep 1; done" /bin/away.sh\n' \
    > "$root/var/lib/bundle-server/bundles/tuner/bin/tuner.sh"
service start || fail "it does not start again"
await runs bin/away.sh 1 || fail "the item that goes into a session of its own does not run"
service stop || fail "\"stop\" fails for an item in a session of its own"
runs bin/away.sh 0 || fail "\"stop\" has left an item in a session of its own"

# The check finds a server that no longer supervises, and restarts it if the configuration asks for that.
rm -r "$root/var/lib/bundle-server/bundles/tuner"
chroot "$root" syslogd -n -O /var/log/messages &
syslog=$!
await test -S "$root/dev/log" || fail "there is no syslog"
service start || fail "it does not start for the check"
await serves || fail "the server does not answer"
cron check-supervision || fail "a server without items is taken for one without a monitor"
lose_monitor
server=$(cat "$root/run/bundle-server.pid")
! cron check-supervision || fail "a server without a monitor is taken for a sound one"
grep -q "daemon.err bundle-server: The server, process $server, has items and no monitor" "$root/var/log/messages" ||
    fail "no message says that nothing is supervised: $(cat "$root/var/log/messages")"
[ "$(cat "$root/run/bundle-server.pid")" = "$server" ] || fail "the service was restarted without being configured to"
echo 'BUNDLE_SERVER_RESTART_UNSUPERVISED="yes"' >> "$root/etc/default/bundle-server"
! cron check-supervision || fail "a server without a monitor is taken for a sound one"
[ "$(cat "$root/run/bundle-server.pid")" != "$server" ] || fail "the service is not restarted"
service stop || fail "it does not stop after the check"
! cron check-supervision 2>&1 | grep . || fail "the check prints something about a stopped service"
kill $syslog

# On a read-only root file system, as docs/operating.md describes it.
mkdir "$root/data"
mount -t tmpfs none "$root/data"
mkdir "$root"/data/{bundles,etc}
put_bundle tuner
mv "$root/var/lib/bundle-server/bundles/tuner" "$root/data/bundles/"
mv "$root/etc/default/bundle-server" "$root/data/etc/"
ln -s /data/etc/bundle-server "$root/etc/default/bundle-server"
sed -i 's,^bundle_collection_dir.*,bundle_collection_dir = /data/bundles,' "$root/etc/bundle-server/bundle-server.ini"
for directory in run var mnt/bolt; do
    mount -t tmpfs -o mode=0755 none "$root/$directory"
done
mount -o remount,bind,ro "$root"
! touch "$root/etc/written" 2> /dev/null || fail "the root file system is not read-only"
service start || fail "it does not start with a read-only root"
await serves || fail "the server does not answer with a read-only root"
await runs bin/tuner.sh 1 || fail "the item is not run with a read-only root"
cron check-supervision || fail "the check fails with a read-only root"
service stop || fail "it does not stop with a read-only root"
mount -o remount,bind,rw "$root"
umount "$root/var"

# A failed start is reported.
echo "[global" > "$root/etc/bundle-server/bundle-server.ini"
rm -r "$root/var/lib/bundle-server/bundles"
mv "$root/etc/bundle-server/bundle-server.ini" "$root/etc/bundle-server/elsewhere.ini"
! service start || fail "\"start\" says that a server without a configuration has started"
echo "started and stopped, with each item once"
