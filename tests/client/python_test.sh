#!/usr/bin/env bash
# The tests of the Python module, with a /mnt of their own.
#
# usage: python_test.sh PYTHON TEST MODULE_DIR
set -uo pipefail

namespaces=(unshare --mount --propagation private)
[ "$(id -u)" -eq 0 ] || namespaces=(unshare --user --map-root-user --mount --propagation private)
"${namespaces[@]}" true 2> /dev/null || { echo "skipped: no mount namespace is available"; exit 77; }
# shellcheck disable=SC2016 # expanded in there
exec "${namespaces[@]}" sh -c 'mount -t tmpfs -o mode=0755 none /mnt && exec "$@"' sh "$@"
