# SPDX-License-Identifier: Apache-2.0
"""examples/zanthedx.schema on a stock slapd: it loads, and what an Active Directory
object carries comes back by name, in its own spelling."""
import base64
import re
import socket
import subprocess

import ldap
import pytest

from gateway import EXAMPLES, SLAPD, SUFFIX, Server, Slapd, accepts, free_port

pytestmark = pytest.mark.embedded

SCHEMA = EXAMPLES / "zanthedx.schema"

# What a domain's objects look like: every kind of value, and those that are easy to lose.
PERSON = {
    "objectClass": ["top", "person", "organizationalPerson", "user"],
    "cn": ["Jürgen Ä"],
    "name": ["Jürgen Ä"],
    "distinguishedName": [f"CN=Jürgen Ä,{SUFFIX}"],
    "sAMAccountName": ["juergen"],
    "userPrincipalName": ["juergen@example.com"],
    "objectGUID": [bytes(range(16))],
    "objectSid": [bytes.fromhex("0105000000000005150000000102030405060708090a0b0c51040000")],
    "objectCategory": ["CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com"],
    "unixHomeDirectory": ["/home/Juergen"],
    "uidNumber": ["10001"],
    "gidNumber": ["10000"],
    "memberOf": [
        r"CN=a\0ACNF:6b1f7d4e-2c53-4f0a-9d86-0e5ad1c7b942,DC=example,DC=com",
        r"CN=Smith\, John \"J\"\+x\;,OU=R&D,DC=example,DC=com",
        "CN={31B2F340-016D-11D2-945F-00C04FB984F9},CN=Policies,DC=example,DC=com",
        r"CN=\ blank\ ,OU=\#1,DC=example,DC=com",
    ],
    "primaryGroupID": ["513"],
    "userAccountControl": ["512"],
    "accountExpires": ["9223372036854775807"],
    "pwdLastSet": ["133500000000000000"],
    "lastLogon": ["0"],
    "groupType": ["-2147483646"],
    "isCriticalSystemObject": ["TRUE"],
    "whenCreated": ["20240101120000.0Z"],
    "whenChanged": ["20240101120000.0Z"],
    "dSCorePropagationData": ["16010101000000.0Z", "20240101120000.0Z"],
    "uSNChanged": ["12345"],
    "instanceType": ["4"],
    "thumbnailPhoto": [b"\x89PNG\r\n\x1a\n\x00"],
    "logonHours": [b"\xff" * 21],
    "userParameters": [b"m\xff\xfe\x00 "],
    "servicePrincipalName": ["HTTP/www.example.com", "host/www"],
    "proxyAddresses": ["SMTP:juergen@example.com"],
    "dNSHostName": ["pc1.example.com"],
    "middleName": ["Q"],
    "department": ["Forschung & Straße", ""],
    "msSFU30NisDomain": ["example"],
    "badPwdCount": ["0"],
    "codePage": ["0"],
    "countryCode": ["49"],
    "telephoneNumber": ["+49 (0)89/123#4; ext_5"],
    "displayName": ["Jürgen Ä"],
}


class LdifSlapd(Server):
    """slapd with the schema and LDIF files behind it: no part of the gateway."""

    def __init__(self, folder, servers):
        super().__init__("slapd-ldif", folder, servers)
        self.port = free_port()
        self.uri = f"ldap://127.0.0.1:{self.port}"
        self.config_file = folder / "slapd-ldif.conf"
        (folder / "data").mkdir()
        lines = [f'include "{schema}"' for schema in [*Slapd.SCHEMAS, SCHEMA]]
        lines += ["database ldif", f'suffix "{SUFFIX}"', f'directory "{folder}/data"', "access to * by * read"]
        self.config_file.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def tool(self, name, *words, text=None):
        """One of slapd's tools, which slapd itself becomes."""
        return subprocess.run([SLAPD, f"-T{name}", "-f", self.config_file, *words], input=text, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def start(self):
        self.spawn([SLAPD, "-d", "0", "-h", self.uri, "-f", self.config_file])
        self.wait_ready(lambda: accepts(socket.AF_INET, ("127.0.0.1", self.port)))
        return self


def as_bytes(value):
    return value if isinstance(value, bytes) else value.encode()


def ldif(dn, attributes):
    lines = [b"dn:: " + base64.b64encode(dn.encode())]
    for name, values in attributes.items():
        # An empty value is written plain: str2entry takes it in no other form.
        lines += [name.encode() + (b":: " + base64.b64encode(as_bytes(value)) if value else b": ")
                  for value in values]
    return b"\n".join(lines) + b"\n\n"


@pytest.fixture(scope="module")
def server(shared_world):
    server = LdifSlapd(shared_world.folder, shared_world.running_servers)
    suffix = {"objectClass": ["domainDNS", "domain"], "dc": ["example"]}
    # -s: as str2entry alone reads an entry, which is all that the gateway's entries pass.
    added = server.tool("add", "-s", text=ldif(SUFFIX, suffix) + ldif(f"CN=Jürgen Ä,{SUFFIX}", PERSON))
    assert added.returncode == 0, added.stdout.decode()
    return server.start()


def read(server, filter, attributes=None):
    connection = ldap.initialize(server.uri)
    try:
        return connection.search_ext_s(SUFFIX, ldap.SCOPE_SUBTREE, filter, attributes, timeout=10)
    finally:
        connection.unbind_ext()


def test_slaptest_takes_it(shared_world, server):
    tested = server.tool("test", "-u")
    assert tested.returncode == 0, tested.stdout.decode()
    assert tested.stdout.decode().strip() == "config file testing succeeded"


@pytest.mark.parametrize("hosts", ["/etc/ldap/schema/nis.schema", EXAMPLES / "rfc2307bis.schema"])
def test_it_loads_with_either_schema_of_hosts_and_with_those_of_sudo_and_mail(tmp_path, hosts):
    stock = [f"/etc/ldap/schema/{name}.schema" for name in ("core", "cosine", "inetorgperson")]
    config = tmp_path / "slapd.conf"
    config.write_text("".join(f'include "{schema}"\n' for schema in [*stock, hosts, SCHEMA, EXAMPLES / "sudo.schema", EXAMPLES / "mail.schema"]))
    tested = subprocess.run([SLAPD, "-Ttest", "-u", "-Q", "-f", config], check=False, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    assert (tested.returncode, tested.stdout) == (0, b"")


def test_an_entry_may_carry_whatever_the_file_defines():
    [listed] = re.findall(r"NAME 'adObject' SUP top AUXILIARY\s+MAY \(([^)]*)\)", SCHEMA.read_text(encoding="utf-8"))
    allowed = {name.strip() for name in listed.split("$")}
    assert allowed == {name for _, name in definitions("attributetype")} | {"mail", "displayName", "cn"}


def test_all_attributes_come_back_for_star_in_their_own_spelling(server):
    [(_, entry)] = read(server, "(sAMAccountName=juergen)")
    expected = {name: sorted(map(as_bytes, values)) for name, values in PERSON.items()}
    assert {name: sorted(values) for name, values in entry.items()} == expected


@pytest.mark.parametrize("name", PERSON)
def test_each_attribute_comes_back_by_name(server, name):
    [(_, entry)] = read(server, "(sAMAccountName=juergen)", [name.upper()])
    # "name" is what cn and others are kinds of: they come with it.
    assert set(entry) == ({"name", "cn"} if name == "name" else {name})
    assert sorted(entry[name]) == sorted(map(as_bytes, PERSON[name]))


def definitions(kind):
    return re.findall(rf"^{kind} \( (\S+) NAME '([^']+)'", SCHEMA.read_text(encoding="utf-8"), re.M)


def test_every_definition_is_known_to_the_server(server):
    connection = ldap.initialize(server.uri)
    [(_, schema)] = connection.search_ext_s("cn=Subschema", ldap.SCOPE_BASE, "(objectClass=*)",
                                            ["attributeTypes", "objectClasses"], timeout=10)
    connection.unbind_ext()
    for kind, published in (("attributetype", "attributeTypes"), ("objectclass", "objectClasses")):
        names = [name for _, name in definitions(kind)]
        assert len(names) > 20 and len(set(map(str.lower, names))) == len(names)
        known = b"\n".join(schema[published]).decode()
        assert [name for name in names if f"NAME '{name}'" not in known] == []


def test_filters_on_the_attributes_are_understood(server):
    for filter in ("(samaccountname=JUERGEN)", "(sAMAccountName=jue*)", "(unixHomeDirectory=/home/Juergen)",
                   "(userAccountControl>=512)", "(whenCreated<=20240101120000Z)", "(objectClass=user)",
                   r"(memberOf=cn={31B2F340-016D-11D2-945F-00C04FB984F9}, cn=policies, dc=EXAMPLE,dc=com)",
                   r"(objectGUID=\00\01\02\03\04\05\06\07\08\09\0a\0b\0c\0d\0e\0f)",
                   "(isCriticalSystemObject=TRUE)"):
        assert len(read(server, filter)) == 1, filter
    assert read(server, "(unixHomeDirectory=/home/juergen)") == []
