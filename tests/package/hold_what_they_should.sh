#!/bin/bash
# hold_what_they_should.sh FOLDER SOURCES: every file of the packages with its mode and owner, and what dpkg is told of them.
source "$(dirname "$0")/common.sh"
folder=$(dirname "$0")
sources=$2

contents() { dpkg-deb -c "$1" | awk '{ print $1, $2, $6 }' | grep -v '/$' | sed 's@ \./@ /@'; }
same "the files of ${agent_package##*/}" "$(agent_files "$sources" | sort -k 3)" "$(contents "$agent_package" | sort -k 3)"
same "the files of ${dev_package##*/}" "$(cat "$folder/libvelta-detect-user-dev.contents")" "$(contents "$dev_package" | sort -k 3)"

same "the files of an administrator" "/etc/velta-agent/policy.json
/etc/logrotate.d/velta-agent" "$(dpkg-deb -I "$agent_package" conffiles)"
same "the architecture of the headers" all "$(dpkg-deb -f "$dev_package" Architecture)"
depends=$(dpkg-deb -f "$agent_package" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' | sort)
same "what the agent needs" "libc6
libgcc-s1
libstdc++6
procps" "$depends"

dpkg-deb -x "$agent_package" "$work"
version=$(dpkg-deb -f "$agent_package" Version)
same "the version that the agent tells" "velta-agent $version" "$("$work/usr/bin/velta-agent" --version)"
# It finds its module as it lies there.
"$work/usr/bin/velta-agent" --once --log-level off >"$work/events" || [ $? -eq 1 ] || fail "the agent did not find its module"
keep_events <"$work/events"
"$work/usr/bin/velta-agent" --check-policy "$work/etc/velta-agent/policy.json" || fail "the default policy is none"
unit=$work/usr/lib/systemd/system/velta-agent.service
program=$(sed -nE 's@^ExecStart=(/[^ ]*).*@\1@p' "$unit")
same "what the unit starts" /usr/bin/velta-agent "$program"
libraries=/usr/lib/$(dpkg-architecture -a "$(dpkg-deb -f "$agent_package" Architecture)" -q DEB_HOST_MULTIARCH)
same "what the unit lets run" "ExecPaths=/usr/bin/velta-agent /usr/lib/velta $libraries -/usr/bin/kill" \
  "$(grep ^ExecPaths= "$unit")"
