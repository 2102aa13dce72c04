#!/usr/bin/env bash
# Checks that the tables of docs/testing/failing-calls.md are complete. Every function that the objects of the ARCHIVEs call
# and do not define must be in the first column of a row, and every test that a row names must exist. Names that begin with
# an underscore belong to the compiler and the C++ library; the tables treat those as a whole.
#
# usage: check_failing_calls.sh NM DOCUMENT TESTS ARCHIVE...
set -euo pipefail

nm=$1
document=$2
tests=$3
shift 3

faults=0
fault() {
    echo "$1"
    faults=$((faults + 1))
}

rows=$(grep '^|' "$document" || true)
first_columns=$(cut -d'|' -f2 <<< "$rows")

defined=$("$nm" --defined-only "$@" 2> /dev/null | awk 'NF == 3 { print $3 }' | sort -u)
called=$("$nm" --undefined-only "$@" 2> /dev/null | awk '$1 == "U" { print $2 }' | sed 's/@.*//' | grep -v '^_' |
    sort -u | comm -23 - <(echo "$defined") | sed 's/64$//' | sort -u)

count=0
for call in $called; do
    count=$((count + 1))
    grep -qF "\`$call\`" <<< "$first_columns" || fault "$call is called and stands in no table of $document"
done
[ "$count" -gt 50 ] || fault "only $count calls were found"

# shellcheck disable=SC2016 # the quotes are the document's
named=$(grep -oE '`[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+`' <<< "$rows" | tr -d '`' | sort -u)
[ -n "$named" ] || fault "no test was found in the tables"
for test in $named; do
    grep -rqE "^TEST(_F|_P)?\(${test%.*}, ${test#*.}\)" "$tests" --include='*.cpp' || fault "there is no test $test"
done

echo "$count calls, $(wc -l <<< "$named") tests, $faults faults"
[ "$faults" -eq 0 ]
