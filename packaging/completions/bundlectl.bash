# Completion of bundlectl for bash. bundlectl itself gives the candidates.
_bundlectl() {
    local word=${COMP_WORDS[COMP_CWORD]} line
    [ "$word" != = ] || word=
    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
            :files) compopt -o filenames; mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word") ;;
            :directories) compopt -o filenames; mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -d -- "$word") ;;
            *) COMPREPLY+=("$(printf %q "${line%%$'\t'*}")") ;;
        esac
    done < <("${COMP_WORDS[0]}" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2> /dev/null)
}

complete -F _bundlectl bundlectl
