#!/usr/bin/env bash
# Debian's own checks of the packages give no error and no warning.
#
# usage: lintian_test.sh PACKAGES
set -uo pipefail

command -v lintian > /dev/null || { echo "skipped: lintian is not installed; script/install-dependencies --package"; exit 77; }
said=$(lintian --allow-root --fail-on error,warning "$1"/*.changes 2>&1)
status=$?
echo "$said"
if [ $status -ne 0 ] || grep -qE '^[EW]: ' <<< "$said"; then
    exit 1
fi
