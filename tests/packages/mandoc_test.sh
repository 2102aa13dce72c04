#!/usr/bin/env bash
# mandoc finds no fault in the manual pages, and every page that they refer to exists.
#
# usage: mandoc_test.sh DIRECTORY
set -uo pipefail

cd "$1" || exit 1
for name in bundle_server.8 dyn_lib_process_loader.8 bundlectl.1 BundleManifest.ini.5 bundle-server.ini.5; do
    [ -s "$name" ] || { echo "there is no page $name"; exit 1; }
    for section in FILES "EXIT STATUS" EXAMPLES; do
        grep -qx "\.Sh $section" "$name" || { echo "$name has no section $section"; exit 1; }
    done
done
grep -qx "\.Sh RETURN VALUES" bundle_client.3 || { echo "bundle_client.3 does not say what is returned"; exit 1; }
command -v mandoc > /dev/null || { echo "skipped: mandoc is not installed"; exit 77; }
said=$(mandoc -Tlint -Wwarning ./*[0-9])
status=$?
echo "$said"
# mandoc does not warn about a reference to a missing page of ours.
while read -r page section; do
    case $page in
        bundle* | dyn_lib* | Bundle*) [ -f "$page.$section" ] || { echo "there is no page $page($section)"; exit 1; } ;;
    esac
done < <(sed -n 's/^\.Xr \([^ ]*\) \([0-9]\).*/\1 \2/p' ./*[0-9])
[ -z "$said" ] && exit $status
