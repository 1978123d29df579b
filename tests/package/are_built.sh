#!/bin/bash
# are_built.sh FOLDER SOURCES: both packages, by the command that everybody has.
set -euo pipefail
rm -rf "$1"
nice "$2"/package "$1"
[ "$(ls "$1" | wc -l)" -eq 2 ]
