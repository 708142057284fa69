#!/bin/sh
# machine_run COMMAND...: runs a command as root of a machine of its own, with loopback, the names
# below and an empty /run. What it writes to /etc, /run and new directories of / disappears with
# it, but /etc holds links to the host's files: remove one before writing it. KIVTRAP_TEST_MACHINE is
# "ready" for the command, or the reason why it runs on the machine that it is on.
set -eu
self=$(realpath "$0")

# in_namespaces STAGE RIGHT COMMAND...: this script once more, in new namespaces.
in_namespaces() {
  stage=$1 right=$2
  shift 2
  KIVTRAP_TEST_MACHINE=$stage exec unshare "$right" --mount --net --uts --ipc \
    --propagation unchanged "$self" "$@"
}

# Everything that may be refused.
found() {
  # Mounts made here stay here. Entering the own mount namespace leaves a chroot, whose root is
  # no mount point.
  nsenter --mount=/proc/self/ns/mnt mount --make-rprivate /
  mount -n -t tmpfs -o mode=755 run /run
  ip link set lo up
  hostname testhost
}

case ${KIVTRAP_TEST_MACHINE-} in
"")
  # With the right of root; else as the root, and only user, of a user namespace.
  for right in --mount --map-root-user; do
    if reason=$(in_namespaces try "$right" true 2>&1); then in_namespaces new "$right" "$@"; fi
  done
  KIVTRAP_TEST_MACHINE="no private network here: $reason"
  export KIVTRAP_TEST_MACHINE
  exec flock --close /tmp "$@" # one at a time: they share the machine's ports
  ;;
try) found ;;
new)
  found
  # The host's directories under /run, as the root directory from here on.
  mkdir /run/etc /run/run
  {
    echo "/etc /run/host-etc none rbind,X-mount.mkdir"
    find / -mindepth 1 -maxdepth 1 ! -name etc ! -name run \( -type l -exec cp -P -t /run {} + \
      -o -type d -printf '%p /run%p none rbind,X-mount.mkdir\n' \)
  } >/run/run/fstab
  mount -n -a -T /run/run/fstab
  KIVTRAP_TEST_MACHINE=empty exec unshare --root=/run --wd="$PWD" "$self" "$@"
  ;;
empty)
  ln -s /host-etc/* /etc
  cd /etc
  rm -f hosts protocols services nsswitch.conf host.conf resolv.conf
  printf '%s\n' '127.0.0.1 localhost manager' '192.0.2.1 testhost' '127.0.0.2 station' \
    '127.255.255.255 everybody' >hosts
  printf '%s\n' 'tcp 6 TCP' 'udp 17 UDP' >protocols
  printf '%s\n' 'sunrpc 111/tcp portmapper' 'sunrpc 111/udp portmapper' 'snmp 161/udp' >services
  printf '%s\n' 'hosts: files' 'services: files' >nsswitch.conf
  echo 'multi on' >host.conf # all lines of a name
  : >resolv.conf
  cd "$OLDPWD"
  KIVTRAP_TEST_MACHINE=ready TEST_TMPDIR=/run exec "$@" # also for what GoogleTest calls temporary
  ;;
*) exec "$@" ;;
esac
