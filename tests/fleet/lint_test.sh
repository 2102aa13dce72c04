#!/usr/bin/env bash
# ansible-lint finds nothing in the collection, and ansible-doc shows its modules.
#
# usage: lint_test.sh PACKAGES COLLECTION
set -uo pipefail

command -v ansible-lint > /dev/null || { echo "skipped: there is no ansible-lint; script/install-dependencies --fleet"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/ansible_collections/bundle_server"
cp -R "$2" "$scratch/ansible_collections/bundle_server/fleet"
export ANSIBLE_COLLECTIONS_PATH=$scratch HOME=$scratch
cd "$scratch/ansible_collections/bundle_server/fleet" || exit 1
ansible-lint --offline --nocolor || exit 1
for module in plugins/modules/*.py; do
    [ -e "$module" ] || continue
    ansible-doc "bundle_server.fleet.$(basename "$module" .py)" > "$scratch/page" || exit 1
    grep -q '^OPTIONS' "$scratch/page" || { echo "ansible-doc shows: $(cat "$scratch/page")"; exit 1; }
done
