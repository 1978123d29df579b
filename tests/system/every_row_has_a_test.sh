#!/bin/bash
# Holds the tables of docs/reliability.md and the tests to each other: every numbered way and fault has a test that
# carries its number, and no test carries a number that the tables do not have.
set -u
LC_ALL=C
export LC_ALL
cd "${1:?usage: every_row_has_a_test.sh SOURCE_FOLDER}" || exit 2

# rows HEADING: the numbers of the table under it.
rows() { awk -v heading="## $1" '$0 == heading { on = 1; next } /^## / { on = 0 } on' docs/reliability.md | sed -nE 's/^\| ([0-9]+) \|.*/\1/p'; }
# tests PREFIX: the numbers that tests carry.
tests() { grep -rhoE "^(TEST|TEST_F|TEST_P)\([A-Za-z0-9]+, *$1[0-9]{2}" tests --include='*.cpp' | sed -E 's/.*([0-9]{2})$/\1/' | sort -u | sed 's/^0//'; }

faults=0
compare() {
  local wanted found
  wanted=$(rows "$2") found=$(tests "$1")
  [ -n "$wanted" ] || { echo "docs/reliability.md: no rows under '$2'" >&2 && faults=1; }
  diff <(sort -n <<<"$wanted") <(sort -n <<<"$found") >&2 || { echo "the rows of '$2' and the tests $1.. differ" >&2 && faults=1; }
}
compare Way "Ways of changing the file"
compare Fault "Faults"
exit $faults
