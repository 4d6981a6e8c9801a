# SPDX-License-Identifier: Apache-2.0
"""The shared library shows the functions that the header declares, and no other symbol.

Called with the library and the header."""
import re
import subprocess
import sys


def declared(header):
    with open(header, encoding="utf-8") as file:
        text = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.S)
    text = re.sub(r"^\s*#.*?(?<!\\)$", "", text, flags=re.M)
    return set(re.findall(r"\b(\w+)\s*\([^()]*\)\s*;", text))


def exported(library):
    lines = subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True, text=True)
    return {line.split()[-1].split("@")[0] for line in lines.stdout.splitlines()}


def main():
    library, header = sys.argv[1:]
    wanted, found = declared(header), exported(library)
    for name in sorted(wanted - found):
        print(f"declared but not exported: {name}")
    for name in sorted(found - wanted):
        print(f"exported but not declared: {name}")
    return 0 if wanted and wanted == found else 1


sys.exit(main())
