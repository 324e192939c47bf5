#!/usr/bin/env python3
"""Every command word the help lists has a row in main's command table.

    command_words.py --zan PATH --source cli/zan.cpp

The words come from the commands block of both help texts (the first word of
each usage form); the rows from the kCommands array in the source. The help
words that the table may not claim are listed below with the reason. A word
in two rows would leave the second one dead, so that fails too.
"""

import argparse
import re
import subprocess
import sys

# Handled before the table is walked, or provided by plugins only.
NOT_IN_TABLE = {
    "help": "help words are answered before the table",
    "-help": "help words are answered before the table",
    "-h": "help words are answered before the table",
    "build": "a command of an installed plugin",
}


def help_words(text, head):
    lines = text.split("\n")
    if head not in lines:
        raise SystemExit(f"no '{head}' block in the help")
    words = set()
    for line in lines[lines.index(head) + 1:]:
        if not line.strip():
            break
        # Rows start at column 2; their texts, and wrapped texts, further right.
        if not line.startswith("  ") or line.startswith("   ") or line.startswith("  ("):
            continue
        form = re.split(r" {2,}", line.strip())[0]
        for alt in re.split(r", | \| ", form):
            words.add(alt.split()[0])
    return words


def table_words(source):
    m = re.search(r"kCommands\[\]\s*=\s*\{(.*?)\n\};", source, re.S)
    if not m:
        raise SystemExit("no kCommands table in the source")
    rows = re.findall(r"\{\{([^{}]*)\}", m.group(1))
    if not rows:
        raise SystemExit("kCommands has no rows")
    words = []
    for row in rows:
        words.extend(re.findall(r'"([^"]*)"', row))
    return words


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--zan", required=True)
    ap.add_argument("--source", required=True)
    opts = ap.parse_args()

    failures = []
    with open(opts.source, encoding="utf-8") as f:
        rows = table_words(f.read())
    seen = set()
    for w in rows:
        if w in seen:
            failures.append(f"'{w}' is claimed by two rows")
        seen.add(w)
    for w in NOT_IN_TABLE:
        if w in seen:
            failures.append(f"'{w}' has a row but must not: {NOT_IN_TABLE[w]}")

    for args, head in ((["help"], "commands:"), (["help", "-c"], "命令:")):
        out = subprocess.run([opts.zan] + args, capture_output=True, timeout=10)
        text = out.stdout.decode("utf-8")
        words = help_words(text, head)
        if len(words) < 20:
            failures.append(f"zan {' '.join(args)}: only {len(words)} command words found")
        for w in sorted(words):
            if w not in seen and w not in NOT_IN_TABLE:
                failures.append(f"zan {' '.join(args)} lists '{w}', which has no row")

    for f in failures:
        print("FAIL " + f)
    print(f"{len(rows)} table words; {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
