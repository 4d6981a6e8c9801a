#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""ldap3: logs in, looks a person up, counts everybody page by page, compares, and tries
what the gateway does not do.

    people_ldap3.py URI AUTHORITY DN PASSWORD

The URI must not end with a slash: ldap3 takes that for a part of the name.
"""
import ssl
import sys

import ldap3

BASE = "dc=example,dc=com"
PAGED_RESULTS = "1.2.840.113556.1.4.319"


def pages(connection, filter, attributes, size):
    cookie = None
    while True:
        connection.search(BASE, filter, attributes=attributes, paged_size=size, paged_criticality=True, paged_cookie=cookie)
        # Without the standard mode the last page's result comes twice. When ldap3 sees both,
        # it shows the second one, which has no controls, and lists them among the entries.
        yield [answer for answer in connection.response if answer["type"] == "searchResEntry"]
        controls = connection.result.get("controls")
        cookie = controls[PAGED_RESULTS]["value"]["cookie"] if controls else None
        if not cookie:
            # When it has not seen the second one yet, it would take it for a wrong answer
            # to the next request. A new connection does not have it.
            connection.unbind()
            connection.bind()
            return


def result(_):
    return connection.result["result"]


uri, authority, dn, password = sys.argv[1:]
server = ldap3.Server(uri, get_info=ldap3.NONE, tls=ldap3.Tls(validate=ssl.CERT_REQUIRED, ca_certs_file=authority))
connection = ldap3.Connection(server, dn, "wrong")
print("wrong password:", result(connection.bind()))
connection.rebind(dn, password)
print("logged in:", connection.extend.standard.who_am_i())

connection.search(BASE, "(&(objectClass=posixAccount)(uid=ann))", attributes=["uidNumber", "mail"])
[entry] = connection.entries
print("found:", entry.entry_dn, entry.uidNumber, entry.mail)
print("nobody:", result(connection.search(BASE, "(&(objectClass=posixAccount)(uid=nobody-here))")))
print("pages:", *(len(page) for page in pages(connection, "(objectClass=posixAccount)", ["uid"], 10)))

print("compare:", result(connection.compare(dn, "uid", "ann")))
print("modify:", result(connection.modify(dn, {"loginShell": [(ldap3.MODIFY_REPLACE, ["/bin/zsh"])]})))
print("add:", result(connection.add(f"cn=new,{BASE}", "person", {"cn": "new", "sn": "new"})))
print("rename:", result(connection.modify_dn(dn, "cn=new")))
print("delete:", result(connection.delete(dn)))
connection.extend.standard.modify_password(dn, password, "other")
print("password change:", result(None))
