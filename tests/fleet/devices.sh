# Sourced: devices of a fleet on this machine. Each has a root of its own over this machine's, processes and mounts of
# its own, the packages, a server and an sshd. Their addresses are 127.1.0.1, 127.1.0.2 ... in a private network.
# shellcheck shell=bash disable=SC2154 # packages is named by the test

# shellcheck disable=SC1091 # checked by itself
. "$(dirname "$0")/../packages/fresh_root.sh"

fail() {
    echo "FAILED: $*"
    [ ! -s "$fleet/said" ] || tail -n 60 "$fleet/said"
    exit 1
}

# Runs the calling script again in new namespaces. All their processes and mounts end with the script.
enter_fleet() {
    [ "$(id -u)" -eq 0 ] || skip "only root may have a mount namespace with devices"
    local program
    for program in ansible-playbook ssh sshd ip; do
        command -v $program > /dev/null || [ -x /usr/sbin/$program ] || skip "there is no $program; script/install-dependencies --fleet"
    done
    [ -z "${IN_FLEET:-}" ] || return 0
    local namespaces=(unshare --mount --net --pid --fork --kill-child --mount-proc --propagation private)
    "${namespaces[@]}" true 2> /dev/null || skip "no namespaces for mounts, processes and networks are available"
    IN_FLEET=yes exec "${namespaces[@]}" "$BASH" "$0" "$@"
}

# make_fleet: a place for the devices, and the keys by which they are reached.
make_fleet() {
    fleet=/mnt
    mount -t tmpfs none "$fleet"
    ip link set lo up
    mkdir -m 700 "$fleet/keys"
    ssh-keygen -q -t ed25519 -N '' -f "$fleet/keys/host"
    ssh-keygen -q -t ed25519 -N '' -f "$fleet/keys/user"
    echo "127.1.0.* $(cut -d ' ' -f 1,2 "$fleet/keys/host.pub")" > "$fleet/keys/known"
    cat > "$fleet/sshd_config" <<END
Port 22
HostKey /etc/ssh/fleet_host
AuthorizedKeysFile /etc/ssh/fleet_user
UsePAM no
StrictModes no
Subsystem sftp internal-sftp
END
    echo "[fleet]" > "$fleet/inventory"
    cat > "$fleet/ansible.cfg" <<END
[defaults]
inventory = $fleet/inventory
collections_path = $fleet/collections
local_tmp = $fleet/tmp
remote_tmp = /tmp
forks = 10
timeout = 30
retry_files_enabled = false
interpreter_python = /usr/bin/python3
nocows = true
[ssh_connection]
pipelining = true
ssh_args = -F none -i $fleet/keys/user -o UserKnownHostsFile=$fleet/keys/known -o ControlMaster=auto -o ControlPersist=60s
control_path_dir = $fleet/cp
END
    mkdir -p "$fleet/collections/ansible_collections/bundle_server"
    cp -R "$1" "$fleet/collections/ansible_collections/bundle_server/fleet"
    export ANSIBLE_CONFIG=$fleet/ansible.cfg HOME=$fleet LC_ALL=C.UTF-8
}

# The root of a device.
root_of() {
    echo "$fleet/$1/root"
}

# start_device NUMBER [OPTIONS]: the options are those of the file system that holds its collection.
start_device() {
    local here=$fleet/$1 root place
    root=$(root_of "$1")
    mkdir -p "$here"/{upper,work,root}
    mount -t overlay -o "lowerdir=/,upperdir=$here/upper,workdir=$here/work" overlay "$root" ||
        skip "no overlay over this machine's root can be mounted"
    mkdir -p "$root/var/lib/bundle-server"
    for place in run mnt tmp; do
        mount -t tmpfs -o mode=0755 none "$root/$place"
    done
    mount -t tmpfs -o "mode=0755${2:+,$2}" none "$root/var/lib/bundle-server"
    mount --rbind /dev "$root/dev"
    unpack "$packages" "$root" bundle-server bundlectl || fail "the packages cannot be unpacked"
    mkdir -p "$root/run/sshd"
    cp "$fleet/sshd_config" "$root/etc/ssh/fleet_config"
    cp "$fleet/keys/host" "$root/etc/ssh/fleet_host"
    cp "$fleet/keys/user.pub" "$root/etc/ssh/fleet_user"
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 unshare --mount --pid --fork --kill-child chroot "$root" /bin/sh -c \
        "mount -t proc none /proc && exec /usr/sbin/sshd -D -e -f /etc/ssh/fleet_config -o ListenAddress=127.1.0.$1" \
        > "$here/log" 2>&1 &
    echo "device$1 ansible_host=127.1.0.$1 ansible_user=root" >> "$fleet/inventory"
}

# on NUMBER COMMAND...: runs it on a device.
on() {
    local number=$1
    shift
    ssh -F none -i "$fleet/keys/user" -o "UserKnownHostsFile=$fleet/keys/known" "root@127.1.0.$number" "$@"
}

# answers NUMBER: whether the device can be reached.
answers() {
    on "$1" true 2> /dev/null
}

# play NAME [OPTION...]: runs a playbook; its output is in $fleet/said.
play() {
    # Has its own input: it refuses an input that another process has made non-blocking.
    timeout 300 ansible-playbook "$@" < /dev/null > "$fleet/said" 2>&1
}

# recap NUMBER: the counts of the last play for a device, such as "ok=3 changed=1 unreachable=0 failed=0".
recap() {
    sed -n "s/^device$1  *: \(ok=[0-9]*\)  *\(changed=[0-9]*\)  *\(unreachable=[0-9]*\)  *\(failed=[0-9]*\) .*/\1 \2 \3 \4/p" "$fleet/said"
}
