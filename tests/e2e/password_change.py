# SPDX-License-Identifier: Apache-2.0
"""A program of libvex that changes a password."""
import subprocess

from gateway import BUILD


def change(agent, user, old, new):
    """What libvex answers: the code, the error behind it and its text."""
    done = subprocess.run([BUILD / "tests/e2e/vex_load", "password", user], env=agent.env, check=True,
                          input=f"{old}\n{new}\n", capture_output=True, text=True)
    return done.stdout.strip()
