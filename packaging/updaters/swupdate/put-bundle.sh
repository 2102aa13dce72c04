#!/bin/sh
# For SWUpdate: the script of type "postinstall" of an update that has an archive of a bundle. When the bundle does not
# run, put goes back and the update counts as failed.
#
# usage: put-bundle.sh ARCHIVE

# SWUpdate takes each line of standard error for a failure of the whole update, also when the script ends well.
exec 2>&1
bundlectl put --wait 5m --key /etc/bundle-server/release.pub "$1"
status=$?
rm -f "$1"
exit $status
