#!/usr/bin/env python3
"""table.py <compare.json>: the comparison as tables, from the JSON of Google Benchmark."""
import json
import pathlib
import sys

STEPS = ("build", "carry", "read", "total")
MESSAGES = ("order", "nested", "integers1000", "texts1000", "values1000")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    messages, lookups, access = {}, {}, {}
    for run in json.loads(pathlib.Path(sys.argv[1]).read_text())["benchmarks"]:
        if run.get("aggregate_name", "median") != "median":
            continue
        first, second, library = run["run_name"].split("/")
        access[library] = run["label"]
        if first == "lookup":
            lookups.setdefault(library, {})[int(second)] = run["cpu_time"] / int(second)
        else:
            messages.setdefault(first, {}).setdefault(library, {})[second] = run["cpu_time"]
    for message in MESSAGES:
        rows = messages.get(message, {})
        print(f"{message}: nanoseconds of CPU time a message")
        print(f"{'library':<18}{'access':<12}" + "".join(f"{step:>14}" for step in STEPS))
        for library, row in sorted(rows.items(), key=lambda item: item[1].get("total", 0)):
            print(f"{library:<18}{access[library]:<12}"
                  + "".join(f"{row[s]:14.1f}" if s in row else f"{'-':>14}" for s in STEPS))
        print()
    if lookups:
        counts = sorted({count for row in lookups.values() for count in row})
        print("lookup: nanoseconds of CPU time for one of so many values, all of them in turn")
        print(f"{'library':<18}" + "".join(f"{count:>9}" for count in counts))
        for library, row in sorted(lookups.items()):
            print(f"{library:<18}"
                  + "".join(f"{row[c]:9.1f}" if c in row else f"{'-':>9}" for c in counts))
        print()


if __name__ == "__main__":
    main()
