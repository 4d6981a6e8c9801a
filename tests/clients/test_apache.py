# SPDX-License-Identifier: Apache-2.0
"""A web server that asks for passwords: Apache httpd with mod_authnz_ldap."""
import base64

import pytest

from client_host import EXAMPLES, HERE, STANDARD, Host

OK, LOG_IN = 200, 401
# Prints the status of an answer: the path and the Authorization come as arguments.
ASK = """
import http.client, sys
connection = http.client.HTTPConnection("127.0.0.1", 80, timeout=20)
connection.request("GET", sys.argv[1], headers={"Authorization": sys.argv[2]} if sys.argv[2:] else {})
print(connection.getresponse().status)
"""


@pytest.fixture(scope="module")
def host(shared_world, tls):
    host = Host(shared_world, {"apache2/httpd.conf": HERE / "httpd.conf", "apache2/zanthedx.conf": EXAMPLES / "apache.conf",
                               "zanthe/authority.pem": tls / "authority.pem"})
    host.gateway(shared_world.agent().start(), tls)
    for page in ("", "engineering", "group", "attribute"):
        host.shell(f"mkdir -p /var/www/{page}; echo hello > /var/www/{page}/page")
    host.start("apache", "apache2 -f /etc/apache2/httpd.conf -D FOREGROUND", 80)
    return host


def status(host, page, name=None, password=""):
    credentials = base64.b64encode(f"{name}:{password}".encode()).decode()
    said = host.shell(f"python3 -c '{ASK}' {page} {'' if name is None else repr(f'Basic {credentials}')}")
    return int(said.out)


@pytest.mark.parametrize("name, password, answer", [
    ("ann", "welcome", OK),
    ("rosa", "Tea, at 4 o'clock", OK),
    ("zoe", "mot de passe é", OK),
    ("sven", "welcome", OK),
    ("taro", "welcome", OK),
    (None, "", LOG_IN),
    ("ann", "wrong", LOG_IN),
    ("ann", "", LOG_IN),
    ("nils", "welcome", LOG_IN),  # has no password
    ("iris", "welcome", LOG_IN),  # disabled
    ("nobody-here", "welcome", LOG_IN),
    ("*", "welcome", LOG_IN),
    ("a*n", "welcome", LOG_IN),
])
def test_valid_user(host, name, password, answer):
    assert status(host, "/page", name, password) == answer


@pytest.mark.parametrize("name, answer", [
    ("ann", OK),
    ("ben", OK),  # by way of the group kernel
    ("mei", LOG_IN),
])
def test_the_members_of_a_group(host, name, answer):
    assert status(host, "/engineering/page", name, "welcome") == answer


@pytest.mark.parametrize("page", ["group", "attribute"])
@pytest.mark.parametrize("name", ["ann", "ben", "mei"])
def test_what_compares_lets_people_in_in_the_standard_mode_alone(host, page, name):
    """ben is in the group by way of the group kernel."""
    assert status(host, f"/{page}/page", name, "welcome") == (OK if STANDARD and name != "mei" else LOG_IN)
    assert status(host, "/page", name, "welcome") == OK
