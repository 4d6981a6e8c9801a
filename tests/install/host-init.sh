#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The end of host.sh: the first process of the host's process-id namespace.
#
#   host-init.sh ROOT
set -euo pipefail
root=$1
ip link set lo up
mount -t proc proc "$root/proc"
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
mount -t tmpfs tmpfs "$root/sys/fs/cgroup"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
cd "$root"
mkdir -p old
pivot_root . old
umount -l /old
# Of what root may do, systemd keeps nothing that reaches beyond its namespaces.
exec env -i container=zx PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    setpriv --bounding-set -sys_module,-sys_time,-sys_rawio,-sys_boot,-syslog,-audit_control,-mac_admin \
    /lib/systemd/systemd --system --unit=basic.target --log-target=console --show-status=no
