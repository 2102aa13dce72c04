#!/usr/bin/env bash
# When the log goes to the journal, the journal has each record's priority, and the operator's filters work.
#
# usage: systemd_journal_test.sh PACKAGES
set -uo pipefail
root= # made by fresh_root
bundles= # set by systemd_machine

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/fresh_root.sh"
# shellcheck disable=SC1091
. "$(dirname "$0")/systemd_machine.sh"

prepare() {
    echo "ZQ_LOG_FILE=" > "$root/etc/default/bundle-server"
    put_bundle tuner
    put_bundle player
    put_bundle radio
    echo "exit 2" > "$root/$bundles/radio/bin/radio.sh"
    sed -i '/^bundle_load_mode/a bundle_dependencies = nowhere' "$root/$bundles/player/BundleManifest.ini"
}

# journal FILTER...: the texts of the records that pass the filters.
journal() {
    chroot "$root" journalctl --unit=bundle-server --quiet --output=cat "$@"
}

told() {
    journal | grep -q "$1"
}

observe() {
    await serves || fail "the server does not serve"
    await told player || fail "the journal has no record of the bundle that lacks another: $(journal)"

    local errors all page filter
    errors=$(journal --priority=err)
    all=$(journal)
    grep -q 'ERROR.*bundle\[player\].*nowhere' <<< "$errors" || fail "the filter for errors finds: $errors"
    ! grep -q 'INFO' <<< "$errors" || fail "the filter for errors lets information through: $errors"
    grep -q 'INFO.*tuner' <<< "$all" || fail "the journal has no information: $all"
    ! grep -q '^<' <<< "$all" || fail "the journal shows the priorities in the records: $all"
    [ ! -s "$root/var/log/bundle-server/bundle-server.log" ] || fail "the log goes to a file as well"

    # The filter that the manual page names.
    page=$(dirname "$0")/../../docs/man/bundle-server.log.5
    filter=$(sed -n "s/^\.Dl \$ journalctl -u bundle-server -g '\(.*\)'\$/\1/p" "$page" | sed 's/\\e/\\/g; s/media/radio/g')
    [ -n "$filter" ] || fail "the manual page names no filter for a bundle"
    await told " radio\\.radio\\.sh" || fail "the journal has no record of the item that ends: $(journal)"
    all=$(journal --grep="$filter")
    grep -q 'bundle\[radio\]' <<< "$all" || fail "the filter $filter finds nothing of the bundle: $all"
    grep -q ' radio\.radio\.sh' <<< "$all" || fail "the filter $filter finds nothing of the item: $all"
    ! grep -qE 'player|tuner' <<< "$all" || fail "the filter $filter lets another bundle through: $all"

    errors=$(chroot "$root" bundlectl log --level error 2>&1)
    grep -q 'player' <<< "$errors" || fail "bundlectl does not read the journal: $errors"
    echo "the filters find the errors, and bundlectl reads the journal"
}

on_machine "$@"
