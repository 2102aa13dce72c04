#!/usr/bin/env bash
# The manual pages agree with the programs' own help: options, sub-commands, exit statuses and keys.
#
# usage: manual_test.sh ROOT BUNDLE_SERVER BUNDLECTL LOADER
set -uo pipefail

root=$1
server=$2
bundlectl=$3
loader=$4
man=$root/docs/man
status=0

# same WHAT PAGE PROGRAM: compares two lists with one word a line.
same() {
    if [ -z "$3" ] || [ "$(sort -u <<< "$2")" != "$(sort -u <<< "$3")" ]; then
        echo "$1: the page has ${2//$'\n'/ } and the program ${3//$'\n'/ }"
        status=1
    fi
}

# The options and aliases at the beginning of each entry in a page.
options_of_page() {
    sed -n 's/^\.It Fl/Fl/p' "$man/$1" | tr ',' '\n' |
        sed -nE -e 's/^ *Fl Fl ([a-z-]+).*/--\1/p' -e 's/^ *Fl ([a-z])( .*)?$/-\1/p'
}

options_of_help() {
    grep -E '^ *-' | grep -oE '(^|[ ,])(--[a-z][a-z-]*|-[a-z])' | tr -d ' ,'
}

# The words after ".It" in one section of a page.
items_of_section() {
    sed -n "/^\.Sh $2/,/^\.S[hs]/s/^\.It \(Cm \)\{0,1\}\([a-z_0-9]*\).*/\2/p" "$man/$1"
}

keys() {
    sed -n 's/^\.It Cm \([a-z_]*\)$/\1/p' "$man/$1"
}

same "options of bundle_server" "$(options_of_page bundle_server.8)" "$("$server" --help | options_of_help)"
same "options of the loader" "$(options_of_page dyn_lib_process_loader.8)" "$("$loader" -h | options_of_help)"
same "exit statuses of the loader" "$(items_of_section dyn_lib_process_loader.8 'EXIT STATUS')" \
    "$("$loader" -h | sed -n '/^exit status/,$p' | grep -oE '[0-9]+')"

commands=$("$bundlectl" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p')
same "commands of bundlectl" "$(cat "$man"/bundlectl*.1 | sed -n 's/^\.It Cm \([a-z]*\).*/\1/p')" "$commands"
same "options of bundlectl" "$(for page in "$man"/bundlectl*.1; do options_of_page "${page##*/}"; done)" \
    "$(for command in "" $commands; do "$bundlectl" ${command:+"$command"} --help; done | options_of_help)"
# The options in the synopsis of one verb of bundlectl.1, an alias a line.
synopsis() {
    awk -v verb="$1" '
        /^\.Sh/ { inside = $2 == "SYNOPSIS"; named = 0; taken = 0 }
        !inside { next }
        $0 == ".Nm" { named = 1; taken = 0; next }
        named { taken = $1 == ".Cm" && $2 == verb; named = 0 }
        taken' "$man/bundlectl.1" | grep -oE 'Fl Fl [a-z-]+|Fl [a-z]( |$)' |
        sed -E -e 's/Fl Fl /--/' -e 's/Fl ([a-z]).*/-\1/'
}

for command in $commands; do
    "$bundlectl" "$command" --help | grep -q '^ *--json ' || { echo "$command has no --json"; status=1; }
    grep -q "^\.It Cm $command" "$man/bundlectl.1" || continue # the other pages leave out the options of all their verbs
    # An option with a short form has that form in the synopsis.
    same "synopsis of $command" "$(synopsis "$command")" \
        "$("$bundlectl" "$command" --help | sed -nE 's/^ +(-[^ =]+).*/\1/p' | grep -v '^-h,' | cut -d , -f 1)"
done
same "exit statuses of bundlectl" "$(items_of_section bundlectl.1 'EXIT STATUS')" \
    "$("$bundlectl" --help | sed -n '/^exit status/,$p' | grep -oE '[0-9]+')"

sources=$root/system_server/bundle_server_module/src
same "keys of the configuration" "$(keys bundle-server.ini.5)" \
    "$(grep -hoE '"global\.[a-z_]+"' "$sources"/bundle_server.cpp "$sources"/bundle_process_activator.cpp | sed 's/.*\.//; s/"//')"
same "keys of the manifest" "$(keys BundleManifest.ini.5)" \
    "$(sed -nE 's/^const std::string BundleManifest::[A-Z_]+ = "([a-z]+_[a-z_]+)";/\1/p' "$sources/bundle_manifest.cpp")"
exit $status
