#!/bin/sh
# Serves data/www on the loopback interface. With "exec" the server's child is busybox itself, so busybox dies when the
# server kills its child; otherwise only the shell would. With "-f" it stays in the foreground: the server takes a
# process that goes into the background for one that has ended. A port that is in use ends it with status 1, which asks
# for no relaunch.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1
exec busybox httpd -f -p "127.0.0.1:${BUNDLE_EXAMPLES_PORT:-8090}" -h "$bundle/data/www"
