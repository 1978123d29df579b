#!/bin/bash
# runs_as_the_unit_says.sh TREE: a systemd of its own starts the unit that is installed in TREE, in namespaces and on a
# root that are the test's: nothing of the machine can be written but a folder for what comes out. There the agent must
# see a real useradd, be reloaded, tell of itself, and be started again when it hangs.
set -eu
tree=$(readlink -e "${1:?usage: $0 TREE}")
here=$(dirname "$(readlink -f "$0")")
skip() {
  echo "skipped: $1" >&2
  exit 77
}
[ "$(id -u)" = 0 ] || skip "a service manager of its own takes root"
[ -x /lib/systemd/systemd ] || skip "no systemd is installed"

work=$(mktemp -d)
out=$work/out root=$work/root groups=$work/groups
mkdir "$out" "$root" "$groups"
group=
manager=
finish() {
  if [ -n "$manager" ]; then kill -KILL "$manager" 2>/dev/null || true; wait "$manager" 2>/dev/null || true; fi
  if [ -n "$group" ]; then
    echo 1 >"$group/cgroup.kill" 2>/dev/null || true
    # What was in it is gone in a moment.
    for _ in {1..50}; do
      find "$group" -depth -type d -exec rmdir {} + 2>/dev/null && break
      read -r -t 0.1 <> <(:) || true
    done
  fi
  umount "$groups" 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT

# A control group of its own, below which the manager sees nothing of the machine's.
mount -t cgroup2 none "$groups" 2>/dev/null || skip "no control groups (version 2) can be mounted here"
mkdir "$groups/velta-test-$$" 2>/dev/null || skip "no control group can be made here"
group=$groups/velta-test-$$

unshare --mount --propagation private --pid --cgroup --ipc --uts --net --fork mount -t proc proc "$root" 2>/dev/null ||
  skip "no namespaces here"
# The unit has one of its own. In a chroot the kernel makes none.
unshare --user true 2>/dev/null || skip "no user namespaces here"
# On a file system in memory, as it will be: not every kind of file system can be the upper one.
unshare --mount --propagation private bash -eu -c 'mount -t tmpfs tmpfs "$1" && mkdir "$1"/{upper,work,usr} &&
  mount -t overlay -o "lowerdir=/usr,upperdir=$1/upper,workdir=$1/work" overlay "$1/usr"' - "$root" 2>/dev/null ||
  skip "no overlay can be mounted here"
for link in bin sbin lib lib32 lib64 libx32; do
  [ ! -d "/$link" ] || [ -L "/$link" ] || skip "/$link is no link into /usr"
done
printf -v command '%q ' exec unshare --mount --propagation private --pid --fork --kill-child --cgroup --ipc --uts --net \
  bash "$here/manager_in_private_root.sh" "$root" "$out" "$tree" "$here/driver.sh"
(
  echo 0 >"$group/cgroup.procs"
  SHELL=/bin/bash exec script --quiet --return --flush --command "$command" "$out/console" # it speaks to a terminal alone
) </dev/null >/dev/null 2>&1 &
manager=$!

for _ in {1..750}; do
  [ -e "$out/done" ] && break
  kill -0 "$manager" 2>/dev/null || break
  read -r -t 0.1 <> <(:) || true
done
if [ -e "$out/log" ]; then cat "$out/log"; fi
# A kernel may refuse a manager what the looks above did not ask for. Once it says that it runs, nothing is a reason to
# skip: one that does not get as far as the driver then is what the test is about.
if [ -e "$out/ready" ] && ! [ -e "$out/started" ] && ! grep -aq 'running in system mode' "$out/console"; then
  tail -n 20 "$out/console" >&2 || true
  skip "systemd does not run in namespaces here"
fi
if ! [ -e "$out/done" ] || [ "$(cat "$out/done")" != 0 ]; then
  tail -n 100 "$out/console" >&2 || true
  if [ -e "$out/started" ]; then echo "not as the unit says" >&2; else echo "the manager did not start" >&2; fi
  exit 1
fi

# What the agent has told syslog, written and said of itself, each as its schema wants it; kept with the events of the
# other tests.
sed -n 's/.*velta-agent\[[0-9]*\]: @cee: //p' "$out/syslog" >"$work/told"
[ -s "$work/told" ] && [ -s "$out/alerts.jsonl" ] && [ "$(wc -l <"$out/status.jsonl")" = 2 ] ||
  { echo "there are no events" >&2 && exit 1; }
cat "$work/told" "$out/alerts.jsonl" "$out/status.jsonl" >"$work/events"
/usr/bin/python3 -B "$here/../fleet/valid_events.py" --some-types "$here/../../docs/schema" "$work/events"
[ -z "${VELTA_EVENTS_FILE:-}" ] || cat "$work/events" >>"$VELTA_EVENTS_FILE"
