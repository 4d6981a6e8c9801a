#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""python-ldap: logs in, looks a person up, counts everybody page by page, compares, and
tries what the gateway does not do.

    people.py URI AUTHORITY DN PASSWORD
"""
import sys

import ldap
from ldap.controls import SimplePagedResultsControl

BASE = "dc=example,dc=com"


def pages(connection, filter, attributes, size):
    control = SimplePagedResultsControl(True, size=size, cookie="")
    while True:
        request = connection.search_ext(BASE, ldap.SCOPE_SUBTREE, filter, attributes, serverctrls=[control])
        _, entries, _, controls = connection.result3(request)
        yield entries
        control.cookie = controls[0].cookie
        if not control.cookie:
            return


def result(call, *words):
    try:
        return {"True": 6, "False": 5}.get(str(call(*words)), 0)  # of a compare
    except ldap.LDAPError as error:
        return error.args[0]["result"]


uri, authority, dn, password = sys.argv[1:]
ldap.set_option(ldap.OPT_X_TLS_CACERTFILE, authority)
connection = ldap.initialize(uri)
print("wrong password:", result(connection.simple_bind_s, dn, "wrong"))
connection.simple_bind_s(dn, password)
print("logged in:", connection.whoami_s())

[(found, entry)] = connection.search_s(BASE, ldap.SCOPE_SUBTREE, "(&(objectClass=posixAccount)(uid=ann))", ["uidNumber", "mail"])
print("found:", found, entry["uidNumber"][0].decode(), entry["mail"][0].decode())
print("nobody:", result(connection.search_s, BASE, ldap.SCOPE_SUBTREE, "(&(objectClass=posixAccount)(uid=nobody-here))"))
print("pages:", *(len(page) for page in pages(connection, "(objectClass=posixAccount)", ["uid"], 10)))

print("compare:", result(connection.compare_s, dn, "uid", b"ann"))
print("modify:", result(connection.modify_s, dn, [(ldap.MOD_REPLACE, "loginShell", b"/bin/zsh")]))
print("add:", result(connection.add_s, f"cn=new,{BASE}", [("objectClass", [b"person"]), ("cn", [b"new"]), ("sn", [b"new"])]))
print("rename:", result(connection.rename_s, dn, "cn=new"))
print("delete:", result(connection.delete_s, dn))
print("password change:", result(connection.passwd_s, dn, password, "other"))
