#!/bin/sh
# The install handler of a RAUC update that has a bundle's archive and no image. The update's manifest names it in [handler].
# When the bundle does not run, "put" goes back to the old one and the installation counts as failed.
#
# RAUC mounts the update below RAUC_BUNDLE_MOUNT_POINT.

for archive in "$RAUC_BUNDLE_MOUNT_POINT"/*.tar.gz; do
    bundlectl put --wait 5m --key /etc/bundle-server/release.pub "$archive" || exit 1
done
