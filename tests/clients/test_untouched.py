# SPDX-License-Identifier: Apache-2.0
"""The last of these tests: the machine is as it was before the first, byte for byte where
it counts, and nothing runs on."""
import pathlib

import machine
from client_host import HOSTS, Host


def test_what_a_host_does_to_itself_stays_there(world, machine_before):
    host = Host(world)
    said = host.shell("echo 'auth required pam_deny.so' > /etc/pam.d/common-auth && echo passwd: ldap > /etc/nsswitch.conf &&"
                      "rm /etc/passwd /usr/bin/id && mkdir -p /var/lib/sss/more && hostname other && mount -t tmpfs tmpfs /var/tmp")
    assert said.status == 0, said.err
    seen = machine.state(pathlib.Path(host.path("/")))
    assert seen["files"] != machine_before["files"] and seen["traces"] != machine_before["traces"]
    assert machine.state() == machine_before


def test_the_machine_is_as_it_was(machine_before):
    assert machine.state() == machine_before
    assert {"etc/nsswitch.conf", "etc/passwd", "etc/pam.d/common-auth"} <= set(machine_before["files"])


def hosts_of(process):
    """The hosts of the tests whose files a process sees."""
    try:
        mounts = (process / "mountinfo").read_text()
    except OSError:  # has ended meanwhile
        return []
    return [folder for folder in HOSTS if f"lowerdir={folder}/" in mounts]


def test_no_process_of_any_host_is_left(world):
    host = Host(world)
    assert hosts_of(pathlib.Path(f"/proc/{host.holder.process.pid}")) == [str(host.folder)]
    world.close()
    assert [process for process in pathlib.Path("/proc").glob("[0-9]*") if hosts_of(process)] == []
