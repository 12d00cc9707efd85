#!/bin/sh
# Runs a command in private IPC and mount namespaces, with fresh tmpfs over
# /tmp, /run, /dev/shm and /etc/conf.d, so that the library's fixed paths and System V
# objects are real but nothing of this machine is touched or left behind.
# Usage: isolated.sh COMMAND [ARG...]
set -e
if [ "$MOLK_ISOLATED" = 1 ]; then exec "$@"; fi
export MOLK_ISOLATED=1
exec unshare --ipc --mount --propagation private sh -c '
  set -e
  mount -t tmpfs molk-tmp /tmp
  mount -t tmpfs molk-run /run
  mount -t tmpfs molk-shm /dev/shm
  if [ ! -d /etc/conf.d ]; then
    # /etc/conf.d does not exist here: lay a throw-away layer over /etc
    # (inside this namespace only) so that it can be made.
    mkdir -p /tmp/.etc/upper /tmp/.etc/work
    mount -t overlay molk-etc -o lowerdir=/etc,upperdir=/tmp/.etc/upper,workdir=/tmp/.etc/work /etc
    mkdir /etc/conf.d
  fi
  mount -t tmpfs molk-conf /etc/conf.d
  exec "$@"' molk-isolated "$@"
