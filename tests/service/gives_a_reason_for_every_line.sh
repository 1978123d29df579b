#!/bin/bash
# Every setting of the unit given stands below a comment: its own, or that of the settings it belongs to.
set -eu
unit=${1:?usage: $0 UNIT}
awk '
  /^# --/ { reason = 0; next } # a heading
  /^#/ { reason = 1; next }
  /^$/ || /^\[/ { reason = ($0 ~ /^\[(Unit|Install)\]/); next }
  { settings++; if (!reason) { print FILENAME ":" FNR ": no reason given for " $0; faults++ } }
  END { print settings + 0 " settings, " faults + 0 " without a reason"; exit (settings == 0 || faults > 0) }
' "$unit"
