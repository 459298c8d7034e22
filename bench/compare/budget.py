#!/usr/bin/env python3
"""Holds the instruction counts that scripts/budget.sh leaves in DIR to their budgets.

usage: budget.py DIR

Prints one line per budget and exits with 1 when any is broken or was not counted.
"""

import sys

from instruction_counts import budgets


def main():
    rows = budgets(sys.argv[1])
    width = max(len(label) for label, _, _ in rows)
    for label, measured, met in rows:
        print(f"{'ok    ' if met else 'BROKEN'} {label:<{width}}  {measured}")
    broken = sum(1 for _, _, met in rows if not met)
    print(f"budget: {len(rows) - broken} of {len(rows)} kept" +
          (f", {broken} broken" if broken else ""))
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
