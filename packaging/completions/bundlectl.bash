# Completion of bundlectl for bash.

# The names of the collection's bundles, as far as they can be read.
_bundlectl_names() {
    local collection
    collection=$(sed -n 's/^[[:space:]]*bundle_collection_dir[[:space:]]*=[[:space:]]*//p' \
        /etc/bundle-server/bundle-server.ini 2> /dev/null)
    [ -n "$collection" ] || return 0
    sed -n 's/^[[:space:]]*bundle_name[[:space:]]*=[[:space:]]*//p' "$collection"/*/BundleManifest.ini 2> /dev/null
}

_bundlectl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
    COMPREPLY=()
    case $before in
        --timeout | --count | --pid | --since | --until) return 0 ;;
        --level) mapfile -t COMPREPLY < <(compgen -W "info error" -- "$word"); return 0 ;;
        --for) mapfile -t COMPREPLY < <(compgen -W "serving" -- "$word"); return 0 ;;
        --collection) mapfile -t COMPREPLY < <(compgen -d -- "$word"); return 0 ;;
        --config | --log) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return 0 ;;
    esac
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "status why log delete events wait --help --version" -- "$word")
        return 0
    fi
    case $command in
        status | why | log)
            local options="--json --config --collection --log --help"
            [ "$command" != status ] || options+=" --watch"
            [ "$command" != why ] || options+=" --evidence"
            [ "$command" != log ] || options+=" --follow --level --since --until"
            case $word in
                -*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
                *) mapfile -t COMPREPLY < <(compgen -W "$(_bundlectl_names)" -- "$word") ;;
            esac
            ;;
        delete)
            case $word in
                -*) mapfile -t COMPREPLY < <(compgen -W "--timeout --collection --config --help" -- "$word") ;;
                *) mapfile -t COMPREPLY < <(compgen -W "$(_bundlectl_names)" -- "$word") ;;
            esac
            ;;
        events) mapfile -t COMPREPLY < <(compgen -W "--count --help" -- "$word") ;;
        wait) mapfile -t COMPREPLY < <(compgen -W "--for --timeout --pid --help" -- "$word") ;;
    esac
}

complete -F _bundlectl bundlectl
