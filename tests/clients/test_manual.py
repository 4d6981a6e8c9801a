# SPDX-License-Identifier: Apache-2.0
"""docs/clients.md quotes the files that these tests run with, and links to files that exist."""
import re

import pytest

from gateway import ROOT

PAGE = ROOT / "docs/clients.md"
TEXT = PAGE.read_text(encoding="utf-8")
QUOTES = re.findall(r"^```(\S+)\n(.*?)^```$", TEXT, re.MULTILINE | re.DOTALL)

pytestmark = pytest.mark.embedded


@pytest.mark.parametrize("file, lines", QUOTES)
def test_what_is_quoted_stands_in_the_file(file, lines):
    assert f"\n{lines}" in (ROOT / file).read_text(encoding="utf-8")


def test_every_example_is_told_of():
    linked = set(re.findall(r"\]\(\.\./examples/clients/([^)]+)\)", TEXT))
    assert linked == {file.name for file in (ROOT / "examples/clients").iterdir()}


def test_links_lead_somewhere():
    for link in re.findall(r"\]\(([^)#]+)[^)]*\)", TEXT):
        assert (PAGE.parent / link).exists(), link
