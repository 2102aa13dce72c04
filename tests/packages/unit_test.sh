#!/usr/bin/env bash
# The systemd units as the package installs them. systemd finds no fault in them, and the server's unit allows no more than
# intended.
#
# usage: unit_test.sh PACKAGES
set -uo pipefail

command -v systemd-analyze > /dev/null || { echo "skipped: systemd-analyze is not installed"; exit 77; }
units=/lib/systemd/system
[ -f $units/sysinit.target ] || { echo "skipped: systemd's own units are not installed, and these units refer to them"; exit 77; }
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT

dpkg-deb --extract "$1"/bundle-server_*.deb "$root" || exit 1
dpkg-deb --extract "$1"/bundlectl_*.deb "$root" || exit 1
cp -RL $units/*.target $units/*.slice $units/*.mount "$root/usr/lib/systemd/system/" 2> /dev/null
ln -s usr/lib "$root/lib"
mapfile -t ours < <(cd "$root/usr/lib/systemd/system" && ls bundle-server*)
[ ${#ours[@]} -ge 6 ] || { echo "the package has only these units: ${ours[*]}"; exit 1; }
# The root lacks the programs that the units execute. Empty files of their names replace them.
mkdir -p "$root/bin"
touch "$root/bin/sh" "$root/usr/sbin/logrotate"
chmod 755 "$root/bin/sh" "$root/usr/sbin/logrotate"
said=$(systemd-analyze verify --root="$root" --man=no "${ours[@]}" 2>&1)
status=$?
# The units that ours refer to may refer to others.
said=$(grep -F bundle-server <<< "$said")
if [ $status -ne 0 ] || [ -n "$said" ]; then
    echo "systemd-analyze verify ends with $status: $said"
    exit 1
fi

# In tenths. A service of root without any restriction has 96. Bundles need the remaining permissions, as the unit explains.
# A change that allows more must raise this number and give the reason.
systemd-analyze security --offline=true --root="$root" --threshold=83 --no-pager bundle-server.service > "$root/report"
status=$?
tail -n 3 "$root/report"
exit $status
