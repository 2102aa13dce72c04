#!/bin/sh
# Serves data/www on the loopback interface. "exec": the server's child is then busybox itself, which dies when the
# server kills it; of a shell around it only the shell would. "-f": it stays in the foreground, for a process that goes
# into the background has ended as far as the server can see.
# A port that somebody else holds ends it with status 1, which asks for no relaunch.
bundle=$(cd "$(dirname "$0")/.." && pwd) || exit 1
exec busybox httpd -f -p "127.0.0.1:${BUNDLE_EXAMPLES_PORT:-8090}" -h "$bundle/data/www"
