#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""samba-tool for a controller that serves no files: it sets no NT ACLs on its sysvol
folder, which takes rights that a container's root may not have."""
import sys

import samba.provision
from samba.netcmd.main import cmd_sambatool

samba.provision.setsysvolacl = lambda *_, **__: None
sys.exit(cmd_sambatool()._run(*sys.argv))
