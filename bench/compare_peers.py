#!/usr/bin/env python3
"""Times whole programs on one module: orn against llvm-symbolizer and eu-addr2line.

    compare_peers.py [--orn build/bin/orn] [--count 1000000] [--runs 3] MODULE

Feeds the same random code addresses to each program's standard input and prints the median of wall time and
processor time and the peak memory.
"""
import argparse
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def code_ranges(module):
    """[begin, end) of every code section, from readelf."""
    listing = subprocess.run(["readelf", "-SW", module], capture_output=True, text=True, check=True).stdout
    ranges = []
    for line in listing.splitlines():
        match = re.match(r"\s*\[\s*\d+\]\s+\S+\s+PROGBITS\s+([0-9a-f]+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+\S+\s+(\S+)", line)
        if match and "X" in match.group(3):
            begin, size = int(match.group(1), 16), int(match.group(2), 16)
            ranges.append((begin, begin + size))
    return ranges


def addresses(module, count):
    random.seed(1)
    ranges = code_ranges(module)
    weights = [end - begin for begin, end in ranges]
    return [random.randrange(*picked) for picked in random.choices(ranges, weights, k=count)]


def commands(orn, module):
    """Only the function is asked for, of every program, so that all do the same work."""
    found = {"orn": [orn, "symbolize", module], "orn --json": [orn, "symbolize", "--json", module]}
    for name in ("llvm-symbolizer", "llvm-symbolizer-14"):
        if shutil.which(name):
            found["llvm-symbolizer"] = [name, "--obj=" + module, "--functions=linkage", "--no-inlines",
                                        "--no-demangle"]
            found["llvm-symbolizer, demangled"] = [name, "--obj=" + module, "--functions=linkage", "--no-inlines"]
            break
    if shutil.which("eu-addr2line"):
        found["eu-addr2line"] = ["eu-addr2line", "-S", "-f", "-e", module]
    return found


def run(command, path, limit):
    """(wall seconds, processor seconds, peak KiB, finished)"""
    with open(path, "rb") as stream, open(os.devnull, "wb") as sink:
        begin = time.monotonic()
        child = subprocess.Popen(command, stdin=stream, stdout=sink, stderr=sink)
        while True:
            pid, _, usage = os.wait4(child.pid, os.WNOHANG)
            if pid:
                break
            if time.monotonic() - begin > limit:
                child.kill()
                _, _, usage = os.wait4(child.pid, 0)
                child.returncode = -9
                return limit, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, False
            time.sleep(0.001)
        child.returncode = 0
    return time.monotonic() - begin, usage.ru_utime + usage.ru_stime, usage.ru_maxrss, True


def main():
    ask = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ask.add_argument("module")
    ask.add_argument("--orn", default="build/bin/orn")
    ask.add_argument("--count", type=int, default=1000000)
    ask.add_argument("--runs", type=int, default=3)
    ask.add_argument("--limit", type=float, default=120, help="seconds after which a run is stopped")
    given = ask.parse_args()
    with tempfile.NamedTemporaryFile("w", suffix=".addresses") as listing:
        listing.writelines(f"0x{address:x}\n" for address in addresses(given.module, given.count))
        listing.flush()
        print(f"{given.module}: {given.count} random code addresses, median of {given.runs}")
        for name, command in commands(given.orn, given.module).items():
            rows = [run(command, listing.name, given.limit) for _ in range(given.runs)]
            wall, cpu, peak = (statistics.median(row[column] for row in rows) for column in range(3))
            note = "" if all(row[3] for row in rows) else "  stopped at the limit"
            print(f"  {name:28} wall {wall:8.3f} s   cpu {cpu:8.3f} s   peak {peak / 1024:8.1f} MiB{note}")


if __name__ == "__main__":
    sys.exit(main())
