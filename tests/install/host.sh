#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Boots a host of its own on this one; host.py says what for. Runs as root in new
# mount, network, IPC and UTS namespaces.
#
#   host.sh FOLDER INSTALLED PROJECT    FOLDER: empty, for the host's changes; INSTALLED: what
#                                       make install made, which the host gets at its root;
#                                       PROJECT: this project's folder, which the host sees
set -euo pipefail
folder=$1 installed=$2 project=$3 root=$1/root

mount --make-rprivate /
mount -t tmpfs -o mode=755 tmpfs "$folder"
mkdir "$folder/changes" "$folder/work" "$root" "$folder/cgroup"
cp -a "$installed/." "$folder/changes/"
# This machine's files, beneath what the host changes.
mount -t overlay -o "lowerdir=/,upperdir=$folder/changes,workdir=$folder/work" overlay "$root"

# The host has no services yet but those that systemd cannot do without; it mounts
# nothing and takes nothing from this machine's settings.
units=$root/lib/systemd/system
rm -rf "$root/etc/systemd" "$root/etc/zanthe" "$root/var/lib/zanthe" "$root/etc/fstab"
mkdir -p "$root/etc/systemd/system"
find "$units" -path '*.target.wants/*' ! -name 'systemd-journald[.-]*' ! -name 'systemd-sysusers.service' \
    ! -name 'systemd-tmpfiles-setup.service' -delete

mount -t tmpfs -o mode=755 tmpfs "$root/dev"
for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
done
mkdir "$root/dev/shm" "$root/dev/pts"
mount -t tmpfs tmpfs "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
touch "$folder/console" "$root/dev/console"
mount --bind "$folder/console" "$root/dev/console"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mount -t sysfs -o ro sysfs "$root/sys"
# The root above has nothing of other file systems, one of which may hold the project.
mkdir -p "$root$project"
mount --bind "$project" "$root$project"

# A group of processes of its own, so that its systemd sees and manages no others.
mount -t cgroup2 cgroup2 "$folder/cgroup"
group=$folder/cgroup/zx-host-$$
mkdir "$group"
trap 'find "$group" -depth -type d -exec rmdir {} \; 2>/dev/null || true' EXIT

# Its mounts are its own as well: the new root must not become this shell's.
( echo 0 > "$group/cgroup.procs"
  exec setpriv --pdeathsig KILL unshare --mount --pid --fork --cgroup --kill-child=KILL \
      bash "$(dirname "$0")/host-init.sh" "$root" < /dev/null ) || true
