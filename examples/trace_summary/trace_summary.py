#!/usr/bin/env python3
"""trace_summary: adds up trace files of libqvtrace.so. Prints for each operation how many there
were, how long all of them, their mean and the longest took.

  trace_summary.py FILE...
"""

import json
import sys


def spans_in(path):
    """The operations. Half a line, as a killed process leaves it, isn't one."""
    with open(path, encoding="ascii") as lines:
        for line in lines:
            if line.startswith(",") and line.endswith("\n"):
                event = json.loads(line[1:])
                if event["ph"] == "X":
                    yield event["name"], event["dur"]


def main(paths):
    if not paths:
        print("usage: trace_summary.py FILE...", file=sys.stderr)
        return 2
    times = {}
    try:
        for path in paths:
            for name, microseconds in spans_in(path):
                times.setdefault(name, []).append(microseconds)
    except (OSError, ValueError) as error:
        print(f"trace_summary: {error}", file=sys.stderr)
        return 1
    print(f"{'operation':<20}{'count':>10}{'total us':>14}{'mean us':>12}{'longest us':>12}")
    for name, each in sorted(times.items(), key=lambda item: -sum(item[1])):
        total = sum(each)
        print(f"{name:<20}{len(each):>10}{total:>14.1f}{total / len(each):>12.1f}{max(each):>12.1f}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
