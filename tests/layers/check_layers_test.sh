#!/usr/bin/env bash
# Shows that check_layers.py finds each kind of fault, on a copy of the sources in which one line is wrong.
#
# usage: check_layers_test.sh ROOT
set -euo pipefail

root=$1
check=$(cd "$(dirname "$0")" && pwd)/check_layers.py
src=system_server/bundle_server_module/src
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT

cd "$root"
find bench common examples platform public system_server tests tools \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) \
    -exec cp --parents -t "$copy" {} +
cd "$copy"
"$check" . || { echo "the sources have faults already"; exit 1; }

# expect FILE LINE TEXT: with LINE in FILE, the check fails and says TEXT of the file without its ending.
expect() {
    local said saved
    saved=$(mktemp "$copy/.saved-XXXXXX")
    mkdir -p "$(dirname "$1")"
    [ ! -f "$1" ] || cp "$1" "$saved"
    echo "$2" >> "$1"
    if said=$("$check" .); then
        echo "not found: $1 with $2"
        exit 1
    fi
    if [[ $said != *"${1%.*} $3"* ]]; then
        echo "$1 with $2 is reported as: $said"
        exit 1
    fi
    if [ -s "$saved" ]; then mv "$saved" "$1"; else rm "$1" "$saved"; fi
}

manifest="includes $src/bundle_manifest"
expect $src/bundle_manifest.h '#include "bundle.h"' "includes $src/bundle, which the layer manifest must not know"
expect $src/bundle_process_activator.cpp '#include "bundle_server.h"' "includes $src/bundle_server, which the layer activators"
expect $src/bundle_log.h '# include <bundle_manifest.h>' "$manifest, which the layer helpers must not know"
expect $src/bundle_dir_watcher.cpp '#include "bundle_manifest.h"' "$manifest, which the layer watcher must not know"
expect $src/bundle_manager.cpp '#include "bundle_dir_watcher.h"' "includes $src/bundle_dir_watcher, which the layer manager"
expect $src/newcomer.h '' 'has no layer'
expect newcomer/newcomer.h '' 'has no part'
expect $src/bundle_server.cpp '#include "platform/host/ipc/message.h"' 'includes platform/host/ipc/message, which system_server must not'
expect $src/bundle.cpp '#include "../../../platform/host/ipc/packet.h"' 'includes platform/host/ipc/packet, which system_server must not'
expect public/include/bundle_service.h '#include <request_service.h>' 'includes tools/bundlectl/request_service, which public/include'
expect common/wire.h '#include "bundle_manager.h"' "includes $src/bundle_manager, which common must not know"
expect platform/host/ipc/message.h '#include "bundle_log.h"' "includes $src/bundle_log, which platform/host must not know"
expect platform/include/lumo.h '#include "common/wire.h"' 'includes common/wire, which platform/include must not know'
expect tools/bundlectl/main.cpp '#include "platform/host/ipc/packet.h"' 'includes platform/host/ipc/packet, which tools must not know'
expect examples/common/samples.h '#include "common/unique_fd.h"' 'includes common/unique_fd, which examples must not know'
expect tests/support/files.h '#include "system/system_test.h"' 'includes tests/system/system_test, which tests/support must'
expect bench/stamp.c '#include "platform/host/ipc/packet.h"' 'includes platform/host/ipc/packet, which bench must not know'

# The picture changes with the sources.
# shellcheck disable=SC2016 # a fence of Markdown, no command
printf '```text\n%s\n```\n' "$("$check" . --picture)" > picture.md
"$check" . --compare picture.md
rm -r tools/bundlectl
if "$check" . --compare picture.md > /dev/null; then
    echo "not found: tools include less than the picture shows"
    exit 1
fi
