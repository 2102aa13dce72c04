#!/usr/bin/env bash
# Reads the #include lines of the sources below ROOT and names each that points the wrong way:
#
# - Inside the server a file includes files of its own layer or of one to its left:
#   helpers, manifest, storage, bundle, factory, activators, manager, watcher, server, main.
# - Nothing in the server and in the shared headers includes anything of a platform's implementation, of the tools or of
#   the tests: what they are linked with is decided elsewhere.
#
# usage: check_layers.sh ROOT
set -euo pipefail

root=$1
src=system_server/bundle_server_module/src

layer_of() {
    case $1 in
        atomic_shared_ptr | bundle_log | child_process | dir_stream | directory | directory_sync | framework_watcher) echo 0 ;;
        item_details | item_fingerprint | item_kind | known_item | thread_annotations) echo 0 ;;
        child_wait | item_launch | launch_numbers) echo 0 ;;
        bundle_manifest) echo 1 ;;
        bundle_storage_dir) echo 2 ;;
        bundle) echo 3 ;;
        bundle_factory) echo 4 ;;
        bundle_activator | bundle_activator_factory | bundle_process_activator | bundle_process_monitor | bundle_thread_activator) echo 5 ;;
        bundle_manager) echo 6 ;;
        bundle_dir_watcher) echo 7 ;;
        bundle_server | bundle_server_events | bundle_server_requests) echo 8 ;;
        main) echo 9 ;;
    esac
}

faults=0
fault() {
    echo "$1"
    faults=$((faults + 1))
}

# The names in the #include lines of a file, one a line.
includes_of() {
    sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]\([^">]*\)[">].*/\1/p' "$1"
}

name_of() {
    local name=${1##*/}
    echo "${name%.*}"
}

cd "$root"
checked=0
for file in "$src"/*.h "$src"/*.cpp; do
    checked=$((checked + 1))
    layer=$(layer_of "$(name_of "$file")")
    if [ -z "$layer" ]; then
        fault "$file has no layer: give it one in tests/layers/check_layers.sh"
        continue
    fi
    while IFS= read -r included; do
        [ -f "$src/$included" ] || continue
        other=$(layer_of "$(name_of "$included")")
        if [ -n "$other" ] && [ "$other" -gt "$layer" ]; then
            fault "$file includes $included, which stands above it"
        fi
    done < <(includes_of "$file")
done

while IFS= read -r file; do
    checked=$((checked + 1))
    while IFS= read -r included; do
        for place in "$src" public/include platform/include; do
            # By its bare name, as all of them are included.
            [[ $included == */* ]] || [ ! -f "$place/$included" ] || continue 2
        done
        if [[ $included =~ (^|/)(platform|tools|tests|bench|examples)/ ]] ||
            [ -n "$(find platform tools tests -path "*/$included" -print -quit)" ]; then
            fault "$file includes $included, which the server must not know"
        fi
    done < <(includes_of "$file")
done < <(find system_server public -name '*.h' -o -name '*.cpp')

[ $checked -gt 0 ] || fault "there is nothing to check in $root"
[ $faults -eq 0 ]
