# SPDX-License-Identifier: Apache-2.0
"""Many people, alike but for a number: the embedded directory's LDIF file, and what
clients are to see of them."""
import ctypes
import functools

UNIT = "ou=Staff,dc=example,dc=com"  # as slapd shows it


def uid(number):
    return f"user{number}"


def dn(number):
    """As a search shows it, with the uid in place of the directory's own CN."""
    return f"cn={uid(number)},{UNIT}"


def seen(number):
    """A person's attributes for clients that name them: {attribute: [value]}."""
    return {"uid": [uid(number)], "uidNumber": [str(5000 + number)], "gidNumber": ["5000"],
            "homeDirectory": [f"/home/{uid(number)}"], "loginShell": ["/bin/sh"]}


@functools.cache
def crypt_hash(password, setting="$5$rounds=1000$salt"):
    """crypt(3), cheap on purpose: what a hash costs is looked at elsewhere."""
    libcrypt = ctypes.CDLL("libcrypt.so.1")
    libcrypt.crypt.restype = ctypes.c_char_p
    return libcrypt.crypt(password.encode(), setting.encode()).decode()


def record(number, password):
    return (f"dn: CN=User {number},{UNIT}\nobjectClass: user\nsAMAccountName: {uid(number)}\nuidNumber: {5000 + number}\n"
            f"gidNumber: 5000\nunixHomeDirectory: /home/{uid(number)}\nloginShell: /bin/sh\n"
            f"userPassword: {crypt_hash(password)}\n")


def write(folder, count, password=lambda _uid: "right"):
    """The LDIF file of so many people, whose passwords the function gives by uid."""
    records = [f"dn: {UNIT}\nobjectClass: organizationalUnit\n"]
    records += [record(number, password(uid(number))) for number in range(count)]
    file = folder / "people.ldif"
    file.write_text("\n".join(records), encoding="utf-8")
    return file
