# SPDX-License-Identifier: Apache-2.0
"""slapd's TLS as the example sets it up: no version before 1.2 shakes hands."""
import socket
import ssl
import subprocess

import ldap
import pytest

from gateway import EXAMPLES, Slapd

pytestmark = [pytest.mark.embedded, pytest.mark.filterwarnings("ignore:ssl.TLSVersion")]

VERSIONS = {ssl.TLSVersion.TLSv1: False, ssl.TLSVersion.TLSv1_1: False, ssl.TLSVersion.TLSv1_2: True, ssl.TLSVersion.TLSv1_3: True}
START_TLS = b"\x30\x1d\x02\x01\x01\x77\x18\x80\x16" + b"1.3.6.1.4.1.1466.20037"
# By what slapd takes TLS from: the line for the one must not reach the other.
OTHERS_LINE = {"GnuTLS": "TLSProtocolMin", "OpenSSL": "TLSCipherSuite"}


def example_lines(folder):
    """The example's lines for TLS, with a certificate of the test's own."""
    certificate, key = folder / "cert.pem", folder / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost", "-keyout", key,
                    "-out", certificate], check=True, capture_output=True)
    lines = dict(line[1:].split() for line in (EXAMPLES / "slapd.conf").read_text(encoding="utf-8").splitlines() if line.startswith("#TLS"))
    lines.update(TLSCertificateFile=certificate, TLSCertificateKeyFile=key, TLSCACertificateFile=certificate)
    assert lines.pop(OTHERS_LINE[ldap.get_option(ldap.OPT_X_TLS_PACKAGE)])
    return [f"{name} {value}" for name, value in lines.items()]


def shakes_hands(port, version):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = context.maximum_version = version
    with socket.create_connection(("127.0.0.1", port)) as plain:
        plain.sendall(START_TLS)
        assert plain.recv(4096).startswith(b"\x30")
        try:
            with context.wrap_socket(plain):
                return True
        except (ssl.SSLError, ConnectionError):
            return False


def test_versions_before_1_2_are_refused(world):
    slapd = world.slapd(globals=example_lines(world.folder), directives=Slapd.DIRECTIVES).start()
    assert {version: shakes_hands(slapd.port, version) for version in VERSIONS} == VERSIONS
