#!/bin/sh
# Shows the newest sample of health-recorder on the page that web-page serves. Both bundles lie beside its own. It
# writes below the data/ of web-page, which restarts no bundle.
collection=$(cd "$(dirname "$0")/../.." && pwd) || exit 1
samples=$collection/health-recorder/data/samples.csv
www=$collection/web-page/data/www

report() {
    tail -n 1 "$samples" | {
        IFS=, read -r time load memory tasks
        cat <<END
<!doctype html>
<title>Status</title>
<p>$(date -u -d "@$time" +%Y-%m-%dT%H:%M:%SZ): load $load, $memory kB of memory available, $tasks tasks.</p>
END
    }
}

while sleep 2; do
    # A rename puts it in place, so that no client gets half a page.
    if [ -f "$samples" ] && report > "$www/index.html.new"; then
        mv "$www/index.html.new" "$www/index.html"
    fi
done
