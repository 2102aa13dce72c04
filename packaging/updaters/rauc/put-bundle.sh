#!/bin/sh
# For RAUC: the install handler of an update bundle that has an archive of a bundle and no image. The manifest names it in
# [handler]. When the bundle does not run, put goes back and the installation counts as failed.
#
# RAUC has mounted the update below RAUC_BUNDLE_MOUNT_POINT.

for archive in "$RAUC_BUNDLE_MOUNT_POINT"/*.tar.gz; do
    bundlectl put --wait 5m --key /etc/bundle-server/release.pub "$archive" || exit 1
done
