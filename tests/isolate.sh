#!/bin/sh
# Runs a command in its own mount and network namespace: a private tmpfs on
# /dev/shm (POSIX semaphores and shared memory live there), only the loopback
# interface, up, and HOME in a fresh temporary directory.  Tests that use the
# driver's fixed object names or fixed ports run through here.
if [ "$KV_ISOLATED" = 1 ]; then
  exec "$@"
fi
exec unshare --mount --net -- /bin/sh -c '
  set -e
  mount -t tmpfs -o mode=1777 kvshm /dev/shm
  ip link set lo up
  home=$(mktemp -d /tmp/kvhome.XXXXXX)
  export HOME="$home" KV_ISOLATED=1
  rc=0
  "$@" || rc=$?
  rm -rf "$home"
  exit $rc
' kvisolate "$@"
