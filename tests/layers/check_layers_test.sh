#!/usr/bin/env bash
# Shows that check_layers.sh finds what it is for, on copies of the sources in which one line is wrong.
#
# usage: check_layers_test.sh ROOT
set -euo pipefail

root=$1
check=$(cd "$(dirname "$0")" && pwd)/check_layers.sh
src=system_server/bundle_server_module/src
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT

# expect FILE LINE TEXT: with LINE in FILE, the check fails and says TEXT.
expect() {
    rm -rf "${copy:?}"/*
    mkdir "$copy/tests"
    cp -R "$root/system_server" "$root/public" "$root/platform" "$root/tools" "$copy/"
    echo "$2" >> "$copy/$1"
    local said
    if said=$("$check" "$copy"); then
        echo "not found: $1 with $2"
        exit 1
    fi
    if [[ $said != *"$1$3"* ]]; then
        echo "$1 with $2 is reported as: $said"
        exit 1
    fi
}

expect $src/bundle_manifest.h '#include "bundle.h"' ' includes bundle.h, which stands above it'
expect $src/bundle_process_activator.cpp '#include "bundle_server.h"' ' includes bundle_server.h, which stands above it'
expect $src/bundle_log.h '# include <bundle_manifest.h>' ' includes bundle_manifest.h, which stands above it'
expect $src/newcomer.h '' ' has no layer'
expect $src/bundle_server.cpp '#include "platform/host/message.h"' ' includes platform/host/message.h, which the server must not know'
expect $src/bundle.cpp '#include "../../../platform/host/packet.h"' ' includes ../../../platform/host/packet.h, which the server must not know'
expect public/include/bundle_service.h '#include <service_client.h>' ' includes service_client.h, which the server must not know'
