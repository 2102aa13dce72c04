#!/usr/bin/env bash
# The Debian packages in a fresh root, which has only Debian's essential packages and their dependencies. They are installed,
# serve, run bundles, are removed and purged, and leave only the user's bundles behind.
#
# usage: package_test.sh PACKAGES LIBRARY
set -uo pipefail
root= # made by fresh_root

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
directory=$1
library=$2
enter_machine "$@"
command -v dpkg > /dev/null || skip "dpkg is not installed"

# Without dpkg's database and log, and other tools' notes on packages: they survive every package.
list() {
    (cd "$root" && find . -mindepth 1 \( -path ./dev -o -path ./proc -o -path ./var/lib/dpkg \) -prune -o \
        ! -path ./var/log/dpkg.log ! -path ./var/log/alternatives.log -print) | sort
}

package_manager() {
    # This machine's dpkg may be set to skip manual pages and documents. The test needs the whole package.
    DEBIAN_FRONTEND=noninteractive dpkg --root="$root" --path-include='/*' "$@"
}

# install: installs the packages and checks that the server serves.
install_package() {
    package_manager --install "$directory"/bundle-server_*.deb "$directory"/bundlectl_*.deb || fail "it cannot be installed"
    service status || fail "the installation has not started the server"
    await serves || fail "the server does not answer"
}

fresh_root
# shellcheck disable=SC2016,SC2046 # dpkg-query's own variables; one package a word, here and below
packages=$(closure $(dpkg-query -W -f='${Essential} ${Package}\n' | sed -n 's/^yes //p') \
    $(depends_of "$directory" bundle-server bundlectl))
# shellcheck disable=SC2086
dpkg-query -L $packages | grep -vE '^/usr/share/(doc|man|locale|info)/' | sort -u | copy_files
mkdir -p "$root"/var/lib/dpkg/{info,updates} "$root"/etc/rc{0,1,2,3,4,5,6,S}.d
# shellcheck disable=SC2086
dpkg-query -s $packages > "$root/var/lib/dpkg/status"
for name in $packages; do
    cp /var/lib/dpkg/info/"$name".list /var/lib/dpkg/info/"$name":*.list "$root/var/lib/dpkg/info/" 2> /dev/null
done
# Debian's tools find no init process here, so this file allows them to start services.
printf '#!/bin/sh\nexit 0\n' > "$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
touch "$root/tmp/before" "$root/tmp/after"
list > "$root/tmp/before"

install_package
[ "$(stat -c %a "$root/var/log/bundle-server/bundle-server.log")" = 640 ] || fail "every user can read the log"
[ "$(readlink "$root/usr/share/man/man8/bundle-server.8.gz")" = bundle_server.8.gz ] || fail "\"man bundle-server\" finds nothing"
for page in man5/bundle-server.ini.5 man5/bundle-server.log.5 man8/bundle_server.8 man1/bundlectl.1; do
    [ -f "$root/usr/share/man/$page.gz" ] || fail "there is no page $page"
done
put_bundle radio "$library"
await runs bin/radio.sh 1 || fail "the script of a bundle that is put in is not run"
await runs bin/radio.so 1 || fail "its library is not run"
runs usr/libexec/bundle-server/dyn_lib_process_loader 1 || fail "the package's loader does not run it"
chroot "$root" bundlectl delete radio || fail "the bundle is not deleted"
[ ! -e "$root/var/lib/bundle-server/bundles/radio" ] || fail "the deleted bundle is still there"
put_bundle tuner
await runs bin/tuner.sh 1 || fail "the second bundle's script is not run"
check_service tuner

# An upgrade keeps changes of the configuration. The new server serves at once.
echo "; changed" >> "$root/etc/bundle-server/bundle-server.ini"
put_witness
service start
await runs bin/witness.sh 1 || fail "the items do not run"
await serves || fail "the server does not answer"
before=$(running bin/tuner.sh)
server=$(running sbin/bundle_server)
lines=$(wc -l < "$root/var/log/bundle-server/bundle-server.log")
install_package
check_order "$root/var/log" "$server" "$lines" "upgrade"
await runs bin/tuner.sh 1 || fail "after an upgrade the item runs as: $(running bin/tuner.sh)"
[ "$before" != "$(running bin/tuner.sh)" ] || fail "an upgrade has not restarted the server"
grep -q "^; changed" "$root/etc/bundle-server/bundle-server.ini" || fail "an upgrade has lost the configuration"

rm -r "$root/var/lib/bundle-server/bundles/witness"
await runs bin/witness.sh 0 || fail "the item of a removed bundle still runs"
package_manager --remove bundle-server bundlectl || fail "it cannot be removed"
runs sbin/bundle_server 0 || fail "a removal has left the server"
runs bin/tuner.sh 0 || fail "a removal has left an item"
[ -f "$root/var/lib/bundle-server/bundles/tuner/BundleManifest.ini" ] || fail "a removal has removed a bundle"
[ -f "$root/etc/bundle-server/bundle-server.ini" ] || fail "a removal has removed the configuration"
package_manager --purge bundle-server bundlectl || fail "it cannot be purged"
list > "$root/tmp/after"
left=$(comm -13 "$root/tmp/before" "$root/tmp/after")
expected='./var/lib/bundle-server
./var/lib/bundle-server/bundles
./var/lib/bundle-server/bundles/tuner
./var/lib/bundle-server/bundles/tuner/BundleManifest.ini
./var/lib/bundle-server/bundles/tuner/bin
./var/lib/bundle-server/bundles/tuner/bin/tuner.sh
./var/lib/bundle-server/bundles/tuner/script'
[ "$left" = "$expected" ] || fail "after a purge more than the user's bundle is left: $left"
[ -z "$(comm -23 "$root/tmp/before" "$root/tmp/after")" ] || fail "a purge has removed files that were there before"

# Without a bundle nothing at all is left.
rm -r "$root/var/lib/bundle-server/bundles/tuner"
install_package
chroot "$root" bundlectl events --count 1 & # makes the FIFO
await test -p "$root/mnt/bolt/event.paas.kov" || fail "bundlectl does not listen"
kill $!
package_manager --purge bundle-server bundlectl || fail "it cannot be purged at once"
list > "$root/tmp/after"
cmp "$root/tmp/before" "$root/tmp/after" || fail "a purge leaves: $(comm -3 "$root/tmp/before" "$root/tmp/after")"
echo "installed, served, upgraded, removed and purged"
