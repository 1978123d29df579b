#!/usr/bin/python3
"""demo_test.py AGENT SOURCE_FOLDER

The demo of ./run --demo ends as it must, and every event that it shows is as its schema says."""

import pathlib
import re
import subprocess
import sys

import fleet
import valid_events

agent, sources = sys.argv[1], pathlib.Path(sys.argv[2])
shown = subprocess.run([str(sources / "scripts/demo"), agent], stdout=subprocess.PIPE, text=True)
print(shown.stdout)
if shown.returncode == 8:
    print("SKIPPED: the demo's private /etc is not to be had on this machine")
    sys.exit(fleet.skipped)
assert shown.returncode == 0, "the demo ended with %d" % shown.returncode

events = re.findall(r"^  (?:WRONG.*: )?(\{.*)$", shown.stdout, re.MULTILINE)
changes, alerts, others = map(int, re.search(r"^(\d+) changes, (\d+) alerts, (\d+) other events, 0 answers wrong",
                                             shown.stdout, re.MULTILINE).groups())
assert alerts and others and changes > alerts + others, (changes, alerts, others)
assert len(events) == alerts + others, (events, alerts, others)
standing = re.findall(r"^standing before the demo: (.*)$", shown.stdout, re.MULTILINE)
valid_events.Schemas(sources / "docs/schema").hold(events + standing)
