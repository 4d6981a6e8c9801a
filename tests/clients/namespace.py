#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the host that clients run on, out of the namespaces that this program is
started in, and holds it until its standard input ends.

    unshare --mount --net --uts --propagation private -- namespace.py FOLDER PACKAGES NAME

/usr, /etc and /var are the machine's with the unpacked packages of PACKAGES laid over
them, and over /etc the files of FOLDER/etc. What is written there goes to memory.
/run is FOLDER/run, /dev/shm empty, the network a loopback interface, its name NAME.
"""
import fcntl
import pathlib
import socket
import struct
import subprocess
import sys

SET_FLAGS, INTERFACE_UP = 0x8914, 1  # netdevice(7)


def mount(*words):
    subprocess.run(["mount", *map(str, words)], check=True)


def lay_over(place, layers, written):
    """Layers, the first on top of all, over what is at the place."""
    for name in ("upper", "work"):
        (written / place.name / name).mkdir(parents=True)
    lower = ":".join(str(layer) for layer in (*layers, place) if layer.exists())
    mount("-t", "overlay", "overlay", place,
          "-o", f"lowerdir={lower},upperdir={written / place.name}/upper,workdir={written / place.name}/work")


def raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SET_FLAGS, struct.pack("16sh14x", b"lo", INTERFACE_UP))


def main():
    folder, packages = map(pathlib.Path, sys.argv[1:3])
    written = folder / "written"
    written.mkdir()
    mount("-t", "tmpfs", "tmpfs", written)
    for place in map(pathlib.Path, ("/usr", "/etc", "/var")):
        lay_over(place, [folder / place.name, packages / place.name], written)
    mount("--bind", folder / "run", "/run")
    mount("-t", "tmpfs", "tmpfs", "/dev/shm")
    raise_loopback()
    socket.sethostname(sys.argv[3])
    print("ready", flush=True)
    sys.stdin.read()


if __name__ == "__main__":
    main()
