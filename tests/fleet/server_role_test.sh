#!/usr/bin/env bash
# The role configures and starts the server of each device of a fleet, and finds nothing to do the second time. A change of
# the configuration restarts it.
#
# usage: server_role_test.sh PACKAGES COLLECTION
set -uo pipefail
fleet= # made by make_fleet

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/devices.sh"
# shellcheck disable=SC2034 # for start_device
packages=$1
enter_fleet "$@"
make_fleet "$2"
start_device 1
start_device 2
{ await answers 1 && await answers 2; } || fail "the devices cannot be reached: $(cat "$fleet"/[12]/log)"

cat > "$fleet/site.yml" <<'END'
- hosts: all
  roles:
    - role: bundle_server.fleet.server
      vars:
        server_install: false
        server_collection: /var/lib/bundle-server/others
        server_environment: "{{ environment_of_server | default({}) }}"
END
play "$fleet/site.yml" || fail "the role fails"
for device in 1 2; do
    [[ $(recap $device) == *"unreachable=0 failed=0" ]] || fail "device $device: $(recap $device)"
    on $device bundlectl wait --for serving --timeout 10 || fail "the server of device $device does not serve"
    on $device cat /etc/bundle-server/bundle-server.ini | grep -qx 'bundle_collection_dir = /var/lib/bundle-server/others' ||
        fail "the configuration of device $device is: $(on $device cat /etc/bundle-server/bundle-server.ini)"
done
play "$fleet/site.yml" || fail "the role fails the second time"
for device in 1 2; do
    [[ $(recap $device) == *"changed=0 unreachable=0 failed=0" ]] || fail "the second time device $device: $(recap $device)"
done

before=$(on 1 cat /run/bundle-server.pid)
play "$fleet/site.yml" --check --diff -e '{"environment_of_server": {"LANG": "zh_CN.UTF-8"}}' || fail "the role fails in check mode"
[ "$(on 1 cat /run/bundle-server.pid)" = "$before" ] || fail "check mode has restarted the server"
grep -q '^+LANG=zh_CN.UTF-8' "$fleet/said" || fail "diff mode does not show the change"
play "$fleet/site.yml" -e '{"environment_of_server": {"LANG": "zh_CN.UTF-8"}}' || fail "the role fails with another environment"
after=$(on 1 cat /run/bundle-server.pid)
[ "$after" != "$before" ] || fail "the server has not been restarted"
on 1 "tr '\\0' '\\n' < /proc/$after/environ" | grep -qx 'LANG=zh_CN.UTF-8' || fail "the server has another environment"
echo "configured, left alone, and restarted after a change"
