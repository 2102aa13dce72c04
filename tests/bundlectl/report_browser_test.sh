#!/usr/bin/env bash
# The report in a browser: no error on its console, no request to a network, and nothing wider than the window, on a phone
# and on a desk, dark and light. The short form looks at two of these four.
#
# usage: report_browser_test.sh BUNDLECTL LOG
set -euo pipefail

bundlectl=$1
log=$2
command -v chromium > /dev/null || { echo "skipped: chromium is not installed (script/install-dependencies --browser)"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Names that are hard to fit on a phone.
collection=$scratch/bundles
long=a-name-of-a-bundle-that-is-as-long-as-a-name-can-be-without-a-place-to-break-it-anywhere
mkdir -p "$collection/$long" "$collection/radio"
printf '[global]\nbundle_name = %s\nbundle_load_mode = 0\nbundle_dependencies = radio\n' "$long" \
    > "$collection/$long/BundleManifest.ini"
printf '[global]\nbundle_name = radio\nbundle_load_mode = 7\n' > "$collection/radio/BundleManifest.ini"
"$bundlectl" report -o "$scratch/report.html" --log "$log" --collection "$collection" > /dev/null
# The page has no script. This one measures it in a frame, whose width the browser does not bound. The policy makes an
# error of whatever the page would load.
policy="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'"
sed "s|<head>|&<meta http-equiv=\"Content-Security-Policy\" content=\"$policy\">|" "$scratch/report.html" - \
    > "$scratch/measured.html" <<'END'
<script>
addEventListener('load', () => {
    const root = document.documentElement;
    const isDark = matchMedia('(prefers-color-scheme: dark)').matches;
    const loaded = performance.getEntriesByType('resource').length;
    const paper = getComputedStyle(document.body).backgroundColor;
    parent.postMessage([innerWidth, root.scrollWidth, isDark, loaded, paper.replace(/ /g, '')].join(' '), '*');
});
</script>
END
grep -q "$policy" "$scratch/measured.html"

status=0
fail() {
    echo "$1" >&2
    status=1
}

# look WIDTH SCHEME
look() {
    local width=$1 scheme=$2 setting=1 dark=false profile=$scratch/profile-$1-$2 measured inner content isDark loaded paper
    if [ "$scheme" = dark ]; then
        setting=0
        dark=true
    fi
    cat > "$scratch/frame.html" <<END
<!DOCTYPE html><title>frame</title><iframe width="$width" height="900" style="border:0" src="measured.html"></iframe>
<script>addEventListener('message', event => document.body.setAttribute('data-measured', event.data));</script>
END
    timeout 100 chromium --headless --no-sandbox --disable-gpu --no-first-run --disable-background-networking \
        --disable-component-update --disable-sync --host-resolver-rules='MAP * ~NOTFOUND' --user-data-dir="$profile" \
        --enable-logging=stderr --window-size=1400,900 --blink-settings="preferredColorScheme=$setting" \
        --virtual-time-budget=2000 --dump-dom "file://$scratch/frame.html" \
        > "$scratch/dom" 2> "$scratch/errors" || fail "$width $scheme: chromium has failed: $(tail -n 3 "$scratch/errors")"
    measured=$(sed -n 's/.*data-measured="\([^"]*\)".*/\1/p' "$scratch/dom" | head -n 1)
    read -r inner content isDark loaded paper <<< "$measured" || true
    echo "$width $scheme: $measured"
    [ "${inner:-0}" -eq "$width" ] || fail "$width $scheme: the page was not measured"
    [ "${content:-99999}" -le "$width" ] || fail "$width $scheme: the page is $content wide"
    [ "$isDark" = "$dark" ] || fail "$width $scheme: the browser has another scheme"
    [ "$loaded" = 0 ] || fail "$width $scheme: the page loads ${loaded:-more}"
    papers[setting]=$paper
    if grep CONSOLE "$scratch/errors"; then
        fail "$width $scheme: the console has messages"
    fi
}

papers=()
look 390 dark
look 1280 light
if [ -n "${BUNDLE_SERVER_LONG_TESTS-}" ]; then
    look 390 light
    look 1280 dark
fi
[ "${papers[0]}" != "${papers[1]}" ] || fail "it is as dark as it is light: ${papers[0]}"
exit $status
