#!/usr/bin/env bash
# Walks through the README as a new user would. Runs its commands in their order and waits for each record and each line of
# output that it shows.
#
# usage: walk.sh                     runs exactly the commands of the README
#        walk.sh BUILD_DIR RUN_DIR   runs the programs of BUILD_DIR, in a separate directory, beside a live server
#
# As root it makes a private mount namespace, so that it does not use the machine's services.
#
# The words after the language give the kind of a fenced block of the README:
#   sh walk          commands that end
#   sh walk server   the server, in its own terminal
#   sh walk events   the listener, in its own terminal
#   text log         messages of the server's log, in this order; others may stand between them
#   text output      the output of the last commands
#   text events      the output of the listener
# "<!-- walk: Ctrl-C -->" is that key in the server's terminal. In a block, "…" stands for anything, and a number of three
# digits or more for any number.
set -uo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
if [ "$(id -u)" -eq 0 ] && [ -z "${WALK_IN_NAMESPACE:-}" ]; then
    export WALK_IN_NAMESPACE=yes
    # shellcheck disable=SC2016 # expanded by the inner shell
    exec unshare --mount --propagation private bash -c 'mount -t tmpfs none /mnt && exec "$0" "$@"' "$0" "$@"
fi
if [ "$(id -u)" -ne 0 ] && { [ ! -w /mnt/bolt ] || [ -S /mnt/bolt/bundlesvr.paas.kov ]; }; then
    echo "skipped: without root it needs an unused /mnt/bolt"
    exit 77
fi

cd "$root" || exit 1
own_arguments=()
build=build/release
run=build/run
port=8090
if [ $# -eq 2 ]; then
    build=$1
    run=$2
    own_arguments=(--build-dir "$build" --run-dir "$run")
    # Chooses a free port.
    port=$(((RANDOM % 10000) + 20000))
    while (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null; do
        port=$((port + 1))
    done
    export BUNDLE_EXAMPLES_PORT=$port
fi
mkdir -p "$run"
notes=$(mktemp -d)
log=$notes/log
touch "$log" "$notes/output" "$notes/events"
unset ZQ_LOG_FILE

step="nothing yet"
server=
listener=
seen=0 # lines of the log that have been matched

fail() {
    echo "FAILED at \"$step\": $*"
    echo "--- the end of the log:"
    tail -n 60 "$log"
    exit 1
}

clean_up() {
    [ -z "$listener" ] || kill "$listener" 2> /dev/null
    script/server --stop --run-dir "$run" > /dev/null 2>&1
    rm -rf "$notes"
}
trap clean_up EXIT
trap 'exit 1' INT TERM HUP

# Turns a line of the README into an extended regular expression.
expression() {
    printf '%s\n' "$1" | sed -E -e 's/[][\.*^$+?(){}|/]/\\&/g' -e 's/[0-9]{3,}/[0-9]+/g' -e 's/…/.*/g'
}

# Waits for a line that ends with TEXT in FILE after line FROM; prints its number.
await_line() {
    local file=$1 from=$2 expected found tries
    expected=$(expression "$3")
    for ((tries = 0; tries < 600; ++tries)); do
        found=$(tail -n "+$((from + 1))" "$file" | grep -nE -m 1 -e "(^| )$expected *\$" | cut -d : -f 1)
        if [ -n "$found" ]; then
            echo $((from + found))
            return 0
        fi
        kill -0 "$server" 2> /dev/null || break
        sleep 0.1
    done
    return 1
}

# Adapts the README's commands to this run.
commands() {
    local text
    text=$(cat)
    text=${text//build\/release/$build}
    text=${text//\$PWD\/build\/run/$(cd "$run" && pwd)} # the longer one first
    text=${text//build\/run/$run}
    text=${text//:8090/:$port}
    if [ ${#own_arguments[@]} -gt 0 ]; then
        text=${text//script\/server/script\/server ${own_arguments[*]}}
    fi
    printf '%s\n' "$text" > "$notes/commands"
}

# Runs a command that does not end, as in a terminal of its own. Started in the background of a script it would ignore the
# keyboard's signals. Sets $stayed to its process.
stay() {
    commands
    sed -i '1s/^/exec /' "$notes/commands"
    env --default-signal=INT,QUIT bash "$notes/commands" > "$1" 2> "$2" &
    stayed=$!
}

do_server() {
    stay "$notes/server.output" "$log"
    server=$stayed
    # The command may first have to build.
    local tries
    for ((tries = 0; tries < 6000; ++tries)); do
        [ ! -s "$log" ] || return 0
        kill -0 "$server" 2> /dev/null || fail "it ends: $(cat "$notes/server.output")"
        sleep 0.1
    done
}

do_events() {
    stay "$notes/events" "$notes/events.errors"
    listener=$stayed
    local tries
    for ((tries = 0; tries < 100; ++tries)); do
        [ ! -p /mnt/bolt/event.paas.kov ] || return 0
        sleep 0.1
    done
    fail "bundlectl does not listen: $(cat "$notes/events.errors")"
}

do_commands() {
    commands
    seen=$(wc -l < "$log")
    timeout 60 bash -e "$notes/commands" > "$notes/output" 2>&1 ||
        fail "exit status $?: $(cat "$notes/commands" "$notes/output")"
}

do_log() {
    local line
    while IFS= read -r line; do
        step="log: $line"
        seen=$(await_line "$log" "$seen" "$line") || fail "this record is missing"
    done
}

do_printed() {
    local line from=0
    while IFS= read -r line; do
        step="$1: $line"
        from=$(await_line "$notes/$1" "$from" "$line") || fail "this is not printed, but: $(cat "$notes/$1")"
    done
}

do_interrupt() {
    local tries
    step="Ctrl-C"
    kill -INT "$server"
    for ((tries = 0; tries < 300; ++tries)); do
        kill -0 "$server" 2> /dev/null || break
        sleep 0.1
    done
    kill -0 "$server" 2> /dev/null && fail "the server does not end"
    wait "$server" || fail "script/server ends with status $?"
    [ ! -e /mnt/bolt/bundlesvr.paas.kov ] || fail "the service's socket is still there"
    local left
    left=$(grep -lzxF "BUNDLE_SERVER_RUN=$(cd "$run" && pwd)" /proc/[0-9]*/environ 2> /dev/null)
    [ -z "$left" ] || fail "these processes are left: $left"
}

blocks=0
while IFS= read -r line; do
    case $line in
        '<!-- walk: Ctrl-C -->') do_interrupt; blocks=$((blocks + 1)); continue ;;
        '```sh walk'*) kind=${line#'```sh walk'}; kind=do_${kind# }; [ "$kind" != do_ ] || kind=do_commands ;;
        '```text log') kind=do_log ;;
        '```text output') kind="do_printed output" ;;
        '```text events') kind="do_printed events" ;;
        *) continue ;;
    esac
    block=
    while IFS= read -r line && [ "$line" != '```' ]; do
        block+=$line$'\n'
    done
    step=${block%$'\n'}
    echo "--- $kind: ${step//$'\n'/; }"
    printf '%s' "$block" > "$notes/block"
    # shellcheck disable=SC2086 # a function and its argument
    $kind < "$notes/block"
    blocks=$((blocks + 1))
done < README.md

step="the end of the README"
[ $blocks -ge 10 ] || fail "only $blocks blocks were found in it"
echo "$blocks blocks of the README have been walked through."
