# SPDX-License-Identifier: Apache-2.0
"""The documents agree with each other and with what they describe."""
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from gateway import BUILD, ROOT

PAGES = sorted([*ROOT.glob("*.md"), ROOT / "bench/README.md", ROOT / "tests/ad/README.md", *(ROOT / "docs").glob("*.md")])
LINK = re.compile(r"\]\(([^)\s]+)\)")


def prose(page):
    """A page without its blocks of code."""
    return re.sub(r"(?ms)^ *```.*?^ *```$", "", page.read_text(encoding="utf-8"))


def anchors(page):
    """The names by which a page's headings are linked to."""
    headings = re.findall(r"(?m)^#+ +(.*)$", prose(page))
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


@pytest.mark.parametrize("page", PAGES, ids=lambda page: str(page.relative_to(ROOT)))
def test_every_link_leads_somewhere(page):
    for link in LINK.findall(prose(page)):
        if "://" in link:
            continue
        path, _, anchor = link.partition("#")
        target = (page.parent / path).resolve() if path else page
        assert target.exists(), link
        assert not anchor or anchor in anchors(target), link


def rows(page, heading):
    """The first cells' names of the table below a heading."""
    section = re.split(r"(?m)^##+ ", page.read_text(encoding="utf-8").partition(f"## {heading}\n")[2])[0]
    cells = re.findall(r"(?m)^\| (`[^|]*) \|", section)
    return [name for cell in cells for name in re.findall(r"`([^`]+)`", cell)]


def test_the_manual_page_of_the_database_lists_all_directives():
    page = (ROOT / "docs/man/slapd-zanthedx.5").read_text(encoding="utf-8").replace("\\-", "-")
    listed = page.partition(".SH DIRECTIVES\n")[2].partition(".SH")[0]
    directives = rows(ROOT / "docs/configuration.md", "Directives of the module")
    assert re.findall(r"(?m)^\.B (\S+)$", listed) == directives


def test_the_table_of_settings_lists_no_others():
    known = subprocess.run([BUILD / "agent/vexagent", "--help"], check=True, capture_output=True, text=True).stdout
    names = {line.split()[0].replace(".*", ".CHANNEL") for line in known.split("The settings:\n")[1].splitlines()}
    assert set(rows(ROOT / "docs/configuration.md", "Settings of the host")) == names


def test_settings_are_explained_in_one_place():
    """A second table would soon say something else."""
    for page in PAGES:
        if page.name not in ("configuration.md", "README.md"):
            assert not re.search(r"(?m)^\| `(ad|agent|embedded|log)\.", prose(page)), page


def test_make_help_lists_what_the_readme_names():
    listed = set(re.findall(r"(?m)^make (\w+)", subprocess.run(["make", "help"], cwd=ROOT, capture_output=True, text=True,
                                                                 check=True).stdout))
    sentence = re.search(r"`make help` lists the rest: (.*?)\.", (ROOT / "README.md").read_text(encoding="utf-8"))[1]
    assert set(re.findall(r"`(\w+)`", sentence)) == listed - {"run", "test", "build"}


def test_developers_are_sent_to_files_that_are_there():
    page = prose(ROOT / "docs/developing.md")
    folders = "|".join(path.name for path in ROOT.iterdir() if path.is_dir() and path.name != "build")
    named = re.findall(rf"`((?:{folders})/[\w./-]+)`", page)
    assert len(named) > 40
    assert [name for name in named if not (ROOT / name).exists()] == []


def test_the_changelog_s_last_version_is_the_one_that_is_built():
    listed = re.findall(r"(?m)^## \[(.*)\]", (ROOT / "CHANGELOG.md").read_text(encoding="utf-8"))
    built = subprocess.run([BUILD / "agent/vexagent", "--version"], check=True, capture_output=True, text=True).stdout
    assert listed[0] == "Unreleased"
    assert listed[1] in built.split()


@pytest.mark.parametrize("picture", sorted((ROOT / "docs").glob("*.svg")), ids=lambda picture: picture.name)
def test_every_picture_can_be_shown_and_is(picture):
    root = ElementTree.parse(picture).getroot()
    assert root.tag == "{http://www.w3.org/2000/svg}svg" and root.get("aria-label")
    assert any(f"]({picture.name})" in page.read_text(encoding="utf-8") for page in (ROOT / "docs").glob("*.md"))


def test_every_source_names_its_license():
    sources = ("*.c", "*.cpp", "*.h", "*.py", "*.cmake", "*.fbs", "*.pl", "*.java", "*.sh", "CMakeLists.txt", "*/CMakeLists.txt",
               "Makefile", "tools/*", ":!tools/*.txt")
    files = subprocess.run(["git", "ls-files", *sources], cwd=ROOT, check=True, capture_output=True, text=True).stdout.splitlines()
    assert len(files) > 100
    assert [file for file in files if "SPDX-License-Identifier: Apache-2.0" not in (ROOT / file).read_text(encoding="utf-8")] == []
