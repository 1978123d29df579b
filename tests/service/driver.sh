#!/bin/bash
# The test itself, run as a service of the manager that runs_as_the_unit_says.sh has started.
exec >/out/log 2>&1
: >/out/started
set -u
export PATH=/usr/sbin:/usr/bin LC_ALL=C
faults=0
check() { # check WHAT COMMAND...
  if "${@:2}"; then echo "ok: $1"; else echo "NOT OK: $1"; faults=$((faults + 1)); fi
}
# Until the command succeeds, or for half a minute.
within_reason() {
  local attempt
  for attempt in {1..300}; do
    "$@" && return
    read -r -t 0.1 <> <(:) || true
  done
  return 1
}
value() { systemctl show --value -p "$1" "${2:-velta-agent.service}"; }
end() {
  cp /var/log/velta-agent/alerts.jsonl /out/
  echo "$faults" >/out/done
  exit 0
}
trap end EXIT

python3 - <<'P' &
import os, socket
listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
# Where systemd has it: a service with a /dev of its own finds a link there.
os.makedirs("/run/systemd/journal", exist_ok=True)
listener.bind("/run/systemd/journal/dev-log")
os.chmod("/run/systemd/journal/dev-log", 0o666)
os.symlink("/run/systemd/journal/dev-log", "/dev/log")
with open("/out/syslog", "wb", 0) as records:
    while True:
        records.write(listener.recv(65536) + b"\n")
P
within_reason test -S /dev/log

check "the unit starts, and has started when it watches" systemctl start velta-agent.service
[ "$(value ActiveState)" = active ] || { systemctl status --no-pager -l velta-agent.service; exit; }
echo "status: $(value StatusText)"
check "the manager is told the state" grep -q '^watching /etc/passwd; ' <<<"$(value StatusText)"
pid=$(value MainPID)
grep -E '^(Uid|Gid|Groups|Cap...|NoNewPrivs|Seccomp):' "/proc/$pid/status"
check "the agent is an ordinary user" grep -qE '^Uid:[[:space:]]+6[1-5][0-9]{3}[[:space:]]' "/proc/$pid/status"
for set in CapInh CapPrm CapEff CapBnd CapAmb; do
  check "no capability in $set" grep -qE "^$set:[[:space:]]+0+$" "/proc/$pid/status"
done
check "no new privileges" grep -qE '^NoNewPrivs:[[:space:]]+1$' "/proc/$pid/status"
check "system calls are filtered" grep -qE '^Seccomp:[[:space:]]+2$' "/proc/$pid/status"
check "no network but a loopback that is down" \
  test "$(nsenter -t "$pid" -n cat /proc/net/dev | grep -c :)" = 1
check "a log folder that can be written" touch "/proc/$pid/root/var/log/velta-agent/written"
for folder in /etc /usr /var /root; do
  check "not even root could write to the agent's $folder" \
    grep -q 'Read-only file system' <<<"$(touch "/proc/$pid/root$folder/written" 2>&1)"
done

check "useradd works" useradd -o -u 0 -M toor
check "the alert comes by syslog" within_reason grep -q '@cee: .*"userName":"toor"' /out/syslog
grep @cee: /out/syslog
check "and in the file" within_reason grep -q '"userName":"toor"' /var/log/velta-agent/alerts.jsonl
check "which is for root and the agent alone" \
  test "$(stat -c %a /var/log/velta-agent/alerts.jsonl) $(stat -c %a /var/log/private)" = "600 700"

# As somebody who is neither root nor the agent.
running() { setpriv --reuid 65534 --regid 65534 --clear-groups velta-agent --status >/out/status; }
told() { running && grep -qE '^output +syslog: ok; 1 sent, 0 waiting' /out/status; }
check "the agent tells of itself to everybody" within_reason told
cat /out/status
tells() { velta-agent --status --json >>/out/status.jsonl; }
check "and to monitoring" tells

first=$(grep ^policy /out/status)
changed() { running && [ "$(grep ^policy /out/status)" != "$first" ]; }
read -r -t 1.1 <> <(:) # the times in the status are in seconds
check "a reload" systemctl reload velta-agent.service
check "takes the policy anew" within_reason changed
check "in the same process" test "$(value MainPID)" = "$pid"

echo '{ "unauthorized-root-user"' >/etc/velta-agent/policy.json
systemctl reload velta-agent.service
complains() { running && grep -q '; the running policy stays' /out/status; }
check "a policy that is none leaves the agent running, and is told" within_reason complains
tells # ends with 0 or 1, as the agent sees it
check "still the same process" test "$(value ActiveState) $(value MainPID)" = "active $pid"
echo '{ "unauthorized-root-user": {} }' >/etc/velta-agent/policy.json

# With a short patience, so that it can be waited for.
mkdir -p /units/velta-agent.service.d
printf '[Unit]\nStartLimitIntervalSec=0\n[Service]\nWatchdogSec=2s\nRestartSec=100ms\n' \
  >/units/velta-agent.service.d/short.conf
systemctl daemon-reload
systemctl restart velta-agent.service
check "started with a short watchdog" test "$(value ActiveState)" = active
pid=$(value MainPID)
read -r -t 5 <> <(:) # longer than the patience: it is alive
check "an agent that lives is left alone" test "$(value NRestarts) $(value MainPID)" = "0 $pid"
kill -STOP "$pid"
again() { [ "$(value NRestarts)" -ge 1 ] && [ "$(value ActiveState)" = active ]; }
check "one that hangs is started again" within_reason again
check "and reports" useradd -o -u 0 -M later
check "what it sees" within_reason grep -q '@cee: .*"userName":"later"' /out/syslog

check "it ends in an orderly way" systemctl stop velta-agent.service
check "with success" test "$(value Result)" = success
check "and its status goes with it" test ! -e /run/velta-agent
velta-agent --status
check "of which --status tells by its code" test $? = 10

# Code 4 may be a shortage, and is tried again; code 3 is somebody's mistake, and is not.
mv /usr/lib/velta /usr/lib/velta.away && mkdir /usr/lib/velta
systemctl start velta-agent.service
often() { [ "$(value NRestarts)" -ge 3 ] && [ "$(value ExecMainStatus)" = 4 ]; }
check "a start that found no module is tried again" within_reason often
rmdir /usr/lib/velta && mv /usr/lib/velta.away /usr/lib/velta
active() { [ "$(value ActiveState "$@")" = active ]; }
check "and succeeds when there is one" within_reason active
systemctl stop velta-agent.service
mv /etc/velta-agent/policy.json /etc/velta-agent/policy.away
check "a start without the policy fails" test "$(systemctl start velta-agent.service 2>/dev/null; echo $?)" = 1
check "and is not tried again" test "$(value ActiveState) $(value ExecMainStatus)" = "failed 3"
mv /etc/velta-agent/policy.away /etc/velta-agent/policy.json

rm /usr/bin/kill
check "the unit starts without the program that reloads it" systemctl start velta-agent.service
systemctl stop velta-agent.service

elsewhere=velta-agent-elsewhere.service
check "the unit that is installed elsewhere starts" systemctl start $elsewhere
check "its own agent" test "$(readlink "/proc/$(value MainPID $elsewhere)/exe")" = /usr/local/bin/velta-agent
check "with its own module" grep -q ' /usr/local/lib/velta/libvelta_detect-user.so$' "/proc/$(value MainPID $elsewhere)/maps"
systemctl stop $elsewhere
echo "$faults checks failed"
