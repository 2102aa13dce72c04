#!/usr/bin/env bash
# Makes packages from a build directory by the rules in debian/, and writes them to a directory. Each installed file must be
# in exactly one package.
#
# usage: build_test.sh ROOT BUILD_DIR PACKAGES
set -uo pipefail

root=$1
build=$2
packages=$3
command -v dh > /dev/null || { echo "skipped: debhelper is not installed; script/install-dependencies --tests"; exit 77; }
rm -rf "$packages"
mkdir -p "$packages/sources"
cd "$packages/sources" || exit 1
# The files of the sources that debian/ needs. Nothing is compiled.
cp -R "$root"/{debian,docs,examples,packaging,README.md,LICENSE} . || exit 1
mkdir client && cp -R "$root"/client/{examples,python} client/ || exit 1
export BUNDLE_SERVER_BUILD=$build
dpkg-buildpackage --build=binary --no-sign --no-check-builddeps > "$packages/log" 2>&1 || { tail -n 40 "$packages/log"; exit 1; }
for name in bundle-server bundlectl-author bundlectl libbundle-client0 libbundle-client-dev bundle-server-doc; do
    [ "$(find "$packages" -name "${name}_*.deb" | wc -l)" -eq 1 ] || { echo "FAILED: there is no package $name"; exit 1; }
done
# programs PACKAGE: the programs in it that have verbs of bundlectl.
programs() {
    dpkg-deb --contents "$packages/$1"_*.deb | sed -n 's,.*/\(bundlectl[a-z-]*\)$,\1,p' | grep -vx 'bundlectl\|bundlectl-author/' | sort | xargs
}
[ "$(programs bundlectl-author)" = bundlectl-author ] || { echo "FAILED: bundlectl-author has: $(programs bundlectl-author)"; exit 1; }
case " $(programs bundlectl) " in
*" bundlectl-author "*) echo "FAILED: the authors' verbs are in the device's package: $(programs bundlectl)"; exit 1 ;;
*" bundlectl-put "*) ;;
*) echo "FAILED: the device's package lacks put: $(programs bundlectl)"; exit 1 ;;
esac
missing=$(grep 'exists in debian/tmp but is not installed' "$packages/log")
[ -z "$missing" ] || { echo "FAILED: $missing"; exit 1; }
twice=$(find "$packages" -name '*.deb' -exec sh -c 'dpkg-deb --contents "$1" | grep -v "^d"' sh {} \; | awk '{ print $6 }' | sort | uniq -d)
[ -z "$twice" ] || { echo "FAILED: in two packages: $twice"; exit 1; }
ls "$packages"/*.deb
