#!/bin/bash
# systemd-analyze finds next to nothing that the unit given could still do without.
set -eu
unit=${1:?usage: $0 UNIT}
most=0.3
command -v systemd-analyze >/dev/null || { echo "systemd-analyze is not installed" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
cp "$unit" "$work/velta-agent.service" # a copy: the name decides what is looked up beside it

# As a threshold, in tenths of a point.
if ! systemd-analyze security --offline=true --no-pager --threshold="${most/./}" "$work/velta-agent.service" \
  >"$work/report" 2>&1; then
  cat "$work/report" >&2
  echo "more exposed than $most" >&2
  exit 1
fi
grep 'Overall exposure level' "$work/report"

# A line that systemd does not know would be passed over at the start: it must be none of ours. What is not installed
# here, the program and its pages, is no matter of the unit's.
systemd-analyze verify --man=no "$work/velta-agent.service" 2>&1 |
  grep -v 'is not executable: No such file' >"$work/faults" || true
if [ -s "$work/faults" ]; then
  cat "$work/faults" >&2
  exit 1
fi
