#!/usr/bin/env bash
# The candidates that a shell offers for a line that begins with "bundlectl".
#
# usage: completion_test.sh COMPLETIONS BUNDLECTL bash|zsh|fish
set -uo pipefail

completions=$1
bundlectl=$2
shell=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export PATH=${bundlectl%/*}:$PATH HOME=$scratch/.home XDG_CONFIG_HOME=$scratch/.home XDG_DATA_HOME=$scratch/.home LC_ALL=C.UTF-8
status=0

command -v "$shell" > /dev/null || { echo "skipped: $shell is not installed"; exit 77; }

bundle() {
    mkdir -p "$scratch/bundles/$1/bin"
    printf "[global]$3bundle_name=%s$3bundle_load_mode=0$3" "$2" > "$scratch/bundles/$1/BundleManifest.ini"
}
bundle radio radio '\n'
bundle clock clock '\r\n' # a manifest that was written on another system
bundle two-words 'two words' '\n'
touch "$scratch/file.log"
mkdir "$scratch/folder"
cd "$scratch" || exit 1

# Each function prints the candidates for a line, one a line, without descriptions. The line's last word is empty or incomplete.
bash_offers() {
    # shellcheck source=/dev/null
    source "$completions/bundlectl.bash"
    local line=$1
    read -ra COMP_WORDS <<< "$line"
    [ "${line% }" = "$line" ] || COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _bundlectl
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
}

fish_offers() {
    fish --no-config -c "source $completions/bundlectl.fish; complete -C '$1'" | cut -f 1 | sed 's,/$,,'
}

# zsh completes only for a line editor, so the test replaces the function that shows candidates.
zsh_offers() {
    zsh -f -c '
        setopt extended_glob
        autoload() { : }
        _files() { [[ ${1-} = -/ ]] && print -l *(/) || print -l * }
        _describe() { local one; for one in "${(@P)2}"; do print -r -- "${${one//\\:/:}%%:*}"; done }
        words=("${(@s: :)1}")
        CURRENT=$#words
        source "$2"
    ' zsh "$1" "$completions/_bundlectl" | while IFS= read -r line; do
        [[ $line != "${1##* }"* ]] || printf '%s\n' "$line"
    done
}

# offers LINE WORD...: expects exactly these candidates.
offers() {
    local line=$1 offered
    shift
    case $shell in
        bash) offered=$(bash_offers "$line" 2> /dev/null) ;; # compopt complains outside of an interactive shell
        zsh) offered=$(zsh_offers "$line") ;;
        fish) offered=$(fish_offers "$line") ;;
    esac
    offered=$(sort <<< "$offered")
    if [ "$offered" != "$(printf '%s\n' "$@" | sort)" ]; then
        printf 'for "%s" %s offers "%s", not "%s"\n' "$line" "$shell" "${offered//$'\n'/ }" "$*"
        status=1
    fi
}

two_words='two words'
[ "$shell" != bash ] || two_words='two\ words'
offers "bundlectl sta" status
offers "bundlectl log --lev" --level
offers "bundlectl log --level " info error
offers "bundlectl log --level e" error
offers "bundlectl log --log fi" file.log
offers "bundlectl status --collection fold" folder
offers "bundlectl why --collection bundles " clock radio "$two_words"
offers "bundlectl why --collection bundles c" clock
offers "bundlectl delete --collection bundles r" radio
offers "bundlectl events --count "

# The shell offers exactly the verbs and options of the help.
verbs=$("$bundlectl" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p')
[ -n "$verbs" ] || { echo "the help lists no verb"; status=1; }
mapfile -t words <<< "$verbs"
offers "bundlectl " "${words[@]}" --help --version
for verb in "${words[@]}"; do
    mapfile -t words < <("$bundlectl" "$verb" --help | sed -n '/^Options:/,/^$/p' | grep -oE '^ *(-[a-z],)?--[a-z-]+' | grep -oE -e '--[a-z-]+')
    offers "bundlectl $verb --" "${words[@]}"
done
exit $status
