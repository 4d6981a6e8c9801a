# SPDX-License-Identifier: Apache-2.0
"""Servers that hold the same entries: back-mdb those that the judge has made, the gateway
those that it makes itself of the directory. The build folder is ZX_BUILD, as for the
end-to-end tests."""
import os
import pathlib
import sys

os.environ["LDAPNOINIT"] = "1"
os.environ.pop("ZX_DIRECTORY", None)
sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

import ldap  # noqa: E402
import pytest  # noqa: E402

import company  # noqa: E402
from compare import DN_SYNTAX  # noqa: E402
from gateway import EXAMPLES  # noqa: E402
from judge import Judge, Schema, ldif  # noqa: E402
from peer import Mdb  # noqa: E402
from standard import Standard  # noqa: E402
from world import pytest_runtest_makereport, shared_world, world  # noqa: E402,F401


@pytest.fixture(scope="module")
def map_file(request):
    """The translation map of a file of tests: its MAP, or the one for applications."""
    return EXAMPLES / getattr(request.module, "MAP", "applications.map")


@pytest.fixture(scope="module")
def schema(shared_world):
    return Schema(Mdb(shared_world.folder, shared_world.running_servers, name="schema").start().uri)


@pytest.fixture(scope="module")
def judged(schema, map_file):
    """The entries that there are to be."""
    return Judge(company.ldif(), map_file.read_text(encoding="utf-8"), schema, company.ZONE).entries()


@pytest.fixture(scope="module")
def peer(shared_world, judged):
    return Mdb(shared_world.folder, shared_world.running_servers, ldif(judged)).start()


@pytest.fixture(scope="module")
def agent(shared_world):
    file = shared_world.folder / "company.ldif"
    file.write_text(company.ldif(), encoding="utf-8")
    return shared_world.agent(embedded__ldif=file, zone__dn=company.ZONE, unix__id__min=1000).start()


@pytest.fixture(scope="module")
def gateway(request, shared_world, agent, map_file):
    """With the directives that a file of tests adds: its MORE."""
    directives = (f'vextranslation "{map_file}"', *Standard.MODE, *getattr(request.module, "MORE", ()))
    return Standard(shared_world.folder, shared_world.running_servers, env=agent.env, directives=directives).start()


@pytest.fixture(scope="module")
def dn_names(schema):
    """The attributes whose values are DNs, in lower case."""
    kinds = [schema.known.get_obj(ldap.schema.AttributeType, oid) for oid in schema.known.listall(ldap.schema.AttributeType)]
    def syntax(kind):
        while kind.syntax is None and kind.sup:
            kind = schema.known.get_obj(ldap.schema.AttributeType, kind.sup[0])
        return kind.syntax
    return {name.lower() for kind in kinds if syntax(kind) == DN_SYNTAX for name in kind.names}
