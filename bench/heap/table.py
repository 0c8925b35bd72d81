#!/usr/bin/env python3
"""table.py <system.json> <classes.json> <resident_system.json> <resident_classes.json>

The two heaps beside each other: times, and the memory of a process that did nothing else.
"""
import json
import pathlib
import sys


def medians(path):
    runs = json.loads(pathlib.Path(path).read_text())["benchmarks"]
    return {run["run_name"]: run for run in runs if run.get("aggregate_name", "median") == "median"}


def row(name, system, classes):
    print(f"{name:<42}{system:12.1f}{classes:12.1f}{100 * (classes / system - 1):+9.1f} %")


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    system, classes = medians(sys.argv[1]), medians(sys.argv[2])
    system.update(medians(sys.argv[3]))
    classes.update(medians(sys.argv[4]))
    print("Lists of eight values (ManySteps: of 64) on two heaps")
    print(f"{'nanoseconds of CPU time a list':<42}{'system':>12}{'classes':>12}{'change':>11}")
    for name, run in sorted(system.items()):
        if "bytes_a_list" not in run:
            row(name, run["cpu_time"], classes[name]["cpu_time"])
    for name, run in sorted(system.items()):
        for counter in ("bytes_a_list", "KiB_full", "KiB_after_close"):
            if counter in run:
                row(f"Resident: {counter}", run[counter], classes[name][counter])


if __name__ == "__main__":
    main()
