# SPDX-License-Identifier: Apache-2.0
"""The same look-ups by ldclt, another load generator: does it see what ours sees?"""
import re
import shutil
import subprocess
import time

import measures
from people import SUFFIX
from servers import GENERATOR_CORE, pin

CONNECTIONS = 8
SAMPLE = "1"  # of ten seconds
MEASURE = measures.lookup("ldclt", "look-up, 8 connections, one request each", ("mdb",), connections=CONNECTIONS)


def processor_seconds(process):
    """What a process has taken so far; the number of its clock is the kernel's (clock_getcpuclockid(3))."""
    return time.clock_gettime((~process << 3) | 2)


def compare(contender, lab):
    """Operations a second by both, and the server's processor time for each; None without ldclt.

    The ratio is that of the times: on a busy machine the eight threads of ldclt are
    given more of a processor than the one of our generator, and the rates differ.
    """
    if not shutil.which("ldclt"):
        return None
    last = len(lab.directory.people) - 1
    command = ["ldclt", "-h", "127.0.0.1", "-p", str(contender.slapd.port), "-b", SUFFIX, "-s", "subtree",
               "-f", "(&(objectClass=posixAccount)(uid=uXXXXXX))", "-e", "esearch,random,attrsonly=0", "-r", "0", "-R", str(last),
               "-n", str(CONNECTIONS), "-N", SAMPLE]
    server = contender.slapd.process.pid
    before = processor_seconds(server)
    run = subprocess.run(pin(GENERATOR_CORE, command), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60,
                         text=True, check=True)
    busy = processor_seconds(server) - before
    rate, total = re.search(r"Global average rate:.*\(\s*([\d.]+)/sec\), total:\s*(\d+)", run.stdout).groups()
    if "Global no error occurs" not in run.stdout:
        raise RuntimeError("ldclt met errors:\n" + run.stdout)
    theirs = 1e6 * busy / int(total)
    ours = MEASURE.run(contender, lab)
    return {"ldclt, per second": float(rate), "ldap_load, per second": round(ours["rate"], 1),
            "ldclt, server's us each": round(theirs, 1), "ldap_load, server's us each": round(ours["processor_us"], 1),
            "ratio": round(theirs / ours["processor_us"], 3)}
