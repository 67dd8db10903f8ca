"""Three hosts in network namespaces: is what one pulls from the others theirs, whatever happens?

Run by scripts/fleet-proof.sh, as root in namespaces of its own. Exit code 0: in every case; 1: no,
with the differences; 2: it cannot be tried here.
"""

import argparse
import os
import resource
import shutil
import sys
import time

import plant
from cases import CASES, NEED_FAKETIME, Pace
from fleet import Difference, Fleet
from host import HostFailure, faketime_library
from network import Network

SHORT_CYCLE_MS = 250
LONG_CYCLE_MS = 1000
PHASES = 11.5  # that all cases take together, besides the two stops


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", required=True, help="orva_host")
    parser.add_argument("--folder", required=True, help="gets what the hosts write")
    parser.add_argument("--minutes", type=int, help="how long all cases take together")
    parser.add_argument("--case", action="append", choices=CASES, help="this one, not all")
    return parser.parse_args()


def pace_of(minutes):
    if minutes is None:
        return Pace(phase=5, stop=10)
    return Pace(phase=max((60 * minutes - 120) / PHASES, 5), stop=60)


def missing_tools(names):
    """What the machine lacks for these cases."""
    missing = [tool for tool in ("ip", "iptables", "mount") if shutil.which(tool) is None]
    if faketime_library() is None and any(name in NEED_FAKETIME for name in names):
        missing.append("libfaketime")
    return missing


def say(text):
    print(text, flush=True)


def run_case(name, fleet, pace):
    case = CASES[name]
    say(f"== {name}: {case.__doc__.splitlines()[0]}")
    began = time.monotonic()
    result = case(fleet, pace)
    say(f"   fine after {time.monotonic() - began:.1f} s: {result}")


def run(fleet, names, pace):
    fleet.start()
    for name in names:
        run_case(name, fleet, pace)
    fleet.stop()


def main():
    options = arguments()
    names = options.case or list(CASES)
    names = [name for name in CASES if name in names]  # in the order that they need
    missing = missing_tools(names)
    if missing:
        say(f"missing: {', '.join(missing)}; scripts/setup.sh --fleet installs it")
        return 2
    try:
        network = Network((*plant.SOURCES, plant.PULLER))
    except OSError as error:
        say(f"network namespaces do not work here: {error}")
        return 2
    cycle_ms = SHORT_CYCLE_MS if options.minutes is None else LONG_CYCLE_MS
    fleet = Fleet(network, options.program, options.folder, cycle_ms)
    began = time.monotonic()
    try:
        run(fleet, names, pace_of(options.minutes))
    except (Difference, HostFailure) as trouble:
        say(f"   FAILED:\n{trouble}")
        return 1
    seconds = time.monotonic() - began
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    say(f"== all fine after {seconds:.0f} s: {len(plant.SOURCES)} sources with {plant.ITEMS} items, a "
        f"sample of each every {cycle_ms} ms; {fleet.compared} samples in the last comparison; "
        f"{used.ru_utime + used.ru_stime:.0f} s of processor time in three hosts")
    say(f"{len(names)} passed, 0 failed")
    return 0


if __name__ == "__main__":
    os.umask(0o077)
    sys.exit(main())
