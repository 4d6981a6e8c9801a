# SPDX-License-Identifier: Apache-2.0
"""What the clients of the tests could change on the machine that they run on, and must not."""
import hashlib
import pathlib
import pwd
import socket

# Log-ins, name service, LDAP, sudo, web server: files, and folders with all that is in them.
FILES = ("etc/nsswitch.conf", "etc/passwd", "etc/group", "etc/shadow", "etc/gshadow", "etc/hosts", "etc/hostname", "etc/krb5.conf",
         "etc/nslcd.conf", "etc/sudoers", "etc/faketimerc", "etc/ld.so.cache", "etc/ld.so.preload", "etc/pam.d", "etc/security", "etc/sudoers.d", "etc/sssd",
         "etc/apache2", "etc/ldap", "etc/zanthe", "etc/init.d", "usr/share/pam-configs", "var/lib/sss")
# What daemons leave behind.
TRACES = ("run/nslcd", "run/sssd.pid", "run/apache2.pid", "run/sudo", "run/slapd/ldapi", "var/log/sssd", "var/www", "usr/sbin/nslcd",
          "usr/sbin/sssd", "usr/bin/sudo", "usr/sbin/apache2", "usr/lib/x86_64-linux-gnu/libnss_ldap.so.2",
          "usr/lib/x86_64-linux-gnu/libnss_sss.so.2")
PLACES = ("/usr", "/etc", "/var", "/run", "/dev/shm")


def contents(root):
    found = {}
    for name in FILES:
        path = root / name
        for file in [path, *sorted(path.rglob("*"))] if path.is_dir() else [path]:
            if file.is_file():
                found[str(file.relative_to(root))] = hashlib.sha256(file.read_bytes()).hexdigest()
    return found


def knows(name):
    try:
        return pwd.getpwnam(name).pw_uid
    except KeyError:
        return None


def state(root=pathlib.Path("/")):
    """Of the machine; or of a host of the tests, whose root that is."""
    mounts = [line for line in (root / "proc/self/mounts").read_text(encoding="utf-8").splitlines() if line.split()[1] in PLACES]
    return {"files": contents(root), "traces": {name for name in TRACES if (root / name).exists()}, "mounts": mounts,
            "name": socket.gethostname(), "ann": knows("ann")}
