# SPDX-License-Identifier: Apache-2.0
"""libvex's round trips beside a bare Unix socket, on the agent of a lab."""
import json
import subprocess

from servers import GENERATOR_CORE, PINNED, SERVER_CORE, gateway, pin


def roundtrip(lab):
    """Microseconds for each way, and what follows from them."""
    command = [gateway.BUILD / "bench/vex_roundtrip", lab.agent.settings["embedded.database"], lab.keys["everybody"],
               lab.folder, SERVER_CORE if PINNED else "-1"]
    run = subprocess.run(pin(GENERATOR_CORE, [str(word) for word in command]), stdout=subprocess.PIPE, timeout=120,
                         check=True, env={**lab.agent.env})
    found = json.loads(run.stdout)
    bare = found["bare"]
    found["libvex_vs_bare"] = round(found["libvex"] / bare, 3)
    found["agent_health_vs_bare"] = round(found["agent_health"] / bare, 3)
    for way in ("by_name", "by_number", "by_guid"):
        without = found[f"agent_{way}"] - found[f"directory_{way}"]
        found[f"agent_{way}_less_directory_vs_bare"] = round(without / bare, 3)
    return found
