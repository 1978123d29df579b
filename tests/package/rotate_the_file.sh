#!/bin/bash
# rotate_the_file.sh FOLDER: the agent of the package writes a file that logrotate moves away by the package's own rules.
# Each alert must be in one of the two files, once.
source "$(dirname "$0")/common.sh"
patience=30

in_namespaces --pid --fork --kill-child -- "$@"
mount -t proc proc /proc
dpkg-deb -x "$agent_package" "$work/agent"
cp -a /etc "$work/etc"
awk -F: '$3 != 0 || $1 == "root"' /etc/passwd >"$work/passwd" && cat "$work/passwd" >"$work/etc/passwd"
mount --bind "$work/etc" /etc
mkdir "$work/log"
alerts=$work/log/alerts.jsonl
rules=$work/rules
sed "s@^/var/log/velta-agent/alerts.jsonl @$alerts @" "$work/agent/etc/logrotate.d/velta-agent" >"$rules"
grep -q "^$alerts {" "$rules" || fail "the rules are for another file than the unit's"
grep -q -- " --output /var/log/velta-agent/alerts.jsonl$" "$work/agent/usr/lib/systemd/system/velta-agent.service" ||
  fail "the unit writes another file than the rules are for"

rotate() { logrotate --force --state "$work/state" "$rules" || fail "logrotate does not take the rules"; }
# until_names FILE NAME...: waits until the file has the alerts of these accounts, and no more.
until_names() {
  local file=$1 found
  shift
  for ((tries = 0; tries < patience * 20; ++tries)); do
    found=$(sed -E 's/.*"userName":"([^"]*)".*/\1/' "$file" 2>/dev/null || true)
    [ "$found" = "$(printf '%s\n' "$@")" ] && return
    sleep 0.05
  done
  same "the alerts in ${file##*/}" "$(printf '%s\n' "$@")" "$found"
}

rotate # before there is a file
"$work/agent/usr/bin/velta-agent" --output "$alerts" --no-cross-check 2>"$work/agent.log" &
agent=$!
echo 'first:x:0:0::/nowhere:/bin/sh' >>/etc/passwd
until_names "$alerts" first
rotate
[ ! -e "$alerts" ] || fail "logrotate has made the new file, so it is not the agent's"
echo 'second:x:0:0::/nowhere:/bin/sh' >>/etc/passwd
until_names "$alerts" second
until_names "$alerts.1" first
rotate
echo 'third:x:0:0::/nowhere:/bin/sh' >>/etc/passwd
until_names "$alerts" third
until_names "$alerts.1" second
same "the alerts in the packed file" first "$(zcat "$alerts.2.gz" | sed -E 's/.*"userName":"([^"]*)".*/\1/')"
kill "$agent"
wait "$agent" || fail "the agent ended with code $?"
{ zcat "$alerts.2.gz" && cat "$alerts.1" "$alerts"; } | keep_events
