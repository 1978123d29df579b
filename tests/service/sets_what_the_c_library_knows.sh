#!/bin/bash
# sets_what_the_c_library_knows.sh UNIT AGENT: each tunable in the environment of the unit is one of the agent's C
# library, which takes the value as it stands. A name that it does not know it passes over in silence.
set -eu
unit=${1:?usage: $0 UNIT AGENT} agent=${2:?usage: $0 UNIT AGENT}
loader=$(LC_ALL=C readelf -l "$agent" | sed -n 's/.*interpreter: \(.*\)\]/\1/p')
setting=$(sed -n 's/^Environment=\(GLIBC_TUNABLES=\)/\1/p' "$unit")
[ -n "$loader" ] && [ -n "$setting" ] || { echo "no loader in $agent, or no GLIBC_TUNABLES in $unit" && exit 1; }
known=$(env "$setting" "$loader" --list-tunables)
IFS=: read -ra tunables <<<"${setting#*=}"
for tunable in "${tunables[@]}"; do
  taken=$(sed -n "s/^${tunable%%=*}: \(0x[0-9a-f]*\) .*/\1/p" <<<"$known")
  echo "$tunable is taken as ${taken:-nothing}"
  [ -n "$taken" ] && [ $((taken)) = "${tunable#*=}" ]
done
