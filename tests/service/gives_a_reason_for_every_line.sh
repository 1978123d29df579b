#!/bin/bash
# Every setting of the unit given stands directly below a comment. Settings in a row share one only if they have the same
# key, or if it names each of their keys as "Key=".
set -eu
unit=${1:?usage: $0 UNIT}
awk '
  function fault(line, what) { print FILENAME ":" line ": " what; faults++ }
  function end_of_row(   key) {
    if (keys > 1) for (key in first) if (!named(key)) fault(first[key], "the comment that " key "= shares does not name it")
    split("", first)
    keys = 0
    reason = ""
  }
  # Not as the end of another key.
  function named(key) { return match(" " reason, "[^A-Za-z]" key "=") }
  /^#/ {
    if (keys) end_of_row()
    if (!/^# --/ && !/^#[ #]*$/) reason = reason " " $0 # not a heading
    next
  }
  /^[ \t]*$/ || /^\[/ { end_of_row(); next }
  {
    settings++
    key = $0
    sub(/[ \t]*=.*/, "", key)
    if (reason == "") fault(FNR, "no reason given for " $0)
    if (!(key in first)) { first[key] = FNR; keys++ }
  }
  END { end_of_row(); print settings + 0 " settings, " faults + 0 " without a reason"; exit (settings == 0 || faults > 0) }
' "$unit"
