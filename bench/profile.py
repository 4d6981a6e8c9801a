#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Counts the instructions of a slapd for each request, function by function, with callgrind;
or those of the agent behind it.

    bench/profile.py [--measure lookup|lookup_all|bind|...] [--contenders gateway,mdb] [--count N] [--top N]
    bench/profile.py --agent --contenders gateway_uncached

Counts do not depend on what else the machine does. The files that callgrind wrote stay
in the output folder: callgrind_annotate and kcachegrind read them.
"""
import argparse
import os
import pathlib
import re
import shutil
import subprocess

import run  # first: it finds the build folder
import measures
import servers

KINDS = {kind.key: kind for kind in run.CONTENDERS}


def control(process, *words):
    subprocess.run(["callgrind_control", *words, str(process)], check=True, stdout=subprocess.DEVNULL)


def inside_callgrind(output, name):
    """What a server runs inside."""
    return ("valgrind", "--tool=callgrind", "--instr-atstart=no", "--separate-threads=no", "-q",
            f"--callgrind-out-file={output}/callgrind.{name}")


def profile(lab, contender, measure, count, output, server):
    """Runs the requests once uncounted, then counted. Returns callgrind's file."""
    options = {**measure.options, "count": count}
    if server is lab.agent:  # slapd would not wait for many answers from an agent that slow
        options.update(connections=1, outstanding=1)
    counted = measures.Measure(measure.key, measure.title, measure.mode, measure.contenders, options)
    process = server.process.pid
    first = {**options, "prime": "yes", "count": 2 * len(lab.directory.people)}
    measures.Measure(measure.key, measure.title, measure.mode, measure.contenders, first).run(contender, lab)
    control(process, "--zero")
    control(process, "-i", "on")
    options["prime"] = "no"
    counted.run(contender, lab)
    control(process, "-i", "off")
    control(process, "--dump=bench")
    found = max(output.glob(f"callgrind.{contender.key}.{measure.key}*"), key=lambda file: file.stat().st_mtime)
    return found


def annotate(file, inclusive):
    """[(instructions, function)], the largest first."""
    words = ["callgrind_annotate", "--threshold=100", f"--inclusive={'yes' if inclusive else 'no'}", str(file)]
    text = subprocess.run(words, check=True, capture_output=True, text=True).stdout
    lines = re.findall(r"^\s*([\d,]+) \([ \d.]+%\)\s+(.*)$", text, re.MULTILINE)
    return [(int(count.replace(",", "")), " ".join(name.split())) for count, name in lines]


def show(file, count, top):
    for inclusive in (False, True):
        rows = annotate(file, inclusive)
        total = next(number for number, name in rows if name == "PROGRAM TOTALS")
        print(f"\n## {file.name}: {total / count:,.0f} instructions a request, "
              f"{'with what they call' if inclusive else 'by themselves'}\n")
        for number, name in [row for row in rows if row[1] != "PROGRAM TOTALS"][:top]:
            print(f"{number / count:10,.0f} {100 * number / total:5.1f} %  {name[:150]}")


def main():
    parser = argparse.ArgumentParser(description="Counts instructions for each request.")
    parser.add_argument("--measure", default="lookup", choices=[measure.key for measure in measures.MEASURES])
    parser.add_argument("--contenders", default="gateway,mdb")
    parser.add_argument("--agent", action="store_true", help="of the agent behind the one contender, in place of its slapd")
    parser.add_argument("--count", type=int, default=2000)
    parser.add_argument("--people", type=int, default=1000)
    parser.add_argument("--top", type=int, default=60)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path(os.environ["ZX_BUILD"]) / "callgrind")
    options = parser.parse_args()
    shutil.rmtree(options.output, ignore_errors=True)
    options.output.mkdir(parents=True)
    measure = next(measure for measure in measures.MEASURES if measure.key == options.measure)
    lab = run.Lab(options.people, 1)
    try:
        for key in options.contenders.split(","):
            counted = servers.Agent if options.agent else KINDS[key]
            counted.wrapper = inside_callgrind(options.output, f"{key}.{measure.key}")
        lab.start([KINDS[key] for key in options.contenders.split(",")])
        for contender in lab.contenders.values():
            server = lab.agent if options.agent else contender.slapd
            show(profile(lab, contender, measure, options.count, options.output, server), options.count, options.top)
    finally:
        lab.close()


if __name__ == "__main__":
    main()
