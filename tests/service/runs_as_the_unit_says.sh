#!/bin/bash
# runs_as_the_unit_says.sh UNIT AGENT MODULE POLICY: a systemd of its own starts the unit, in namespaces and on a root
# that are the test's: nothing of the machine can be written but a folder for what comes out. There the agent must see
# a real useradd, be reloaded, tell of itself, and be started again when it hangs.
set -eu
unit=$(readlink -f "${1:?}") agent=$(readlink -f "${2:?}") module=$(readlink -f "${3:?}") policy=$(readlink -f "${4:?}")
here=$(dirname "$(readlink -f "$0")")
skip() {
  echo "skipped: $1" >&2
  exit 77
}
[ "$(id -u)" = 0 ] || skip "a service manager of its own takes root"
[ -x /lib/systemd/systemd ] || skip "no systemd is installed"
[ -e "$(dirname "$agent")/libvelta_detect-user.so" ] || skip "no module beside the agent"

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

unshare --mount --pid --cgroup --ipc --uts --net --fork true 2>/dev/null || skip "no namespaces here"
(
  echo 0 >"$group/cgroup.procs"
  exec unshare --mount --propagation private --pid --fork --kill-child --cgroup --ipc --uts --net \
    bash "$here/manager_in_private_root.sh" "$root" "$out" "$unit" "$agent" "$module" "$policy" "$here/driver.sh"
) >"$out/console" 2>&1 &
manager=$!

for _ in {1..750}; do
  [ -e "$out/done" ] && break
  kill -0 "$manager" 2>/dev/null || break
  read -r -t 0.1 <> <(:) || true
done
if [ -e "$out/skip" ]; then skip "$(cat "$out/skip")"; fi
if ! [ -e "$out/started" ]; then
  cat "$out/console" >&2
  skip "systemd cannot be started in namespaces here"
fi
cat "$out/log"
if ! [ -e "$out/done" ] || [ "$(cat "$out/done")" != 0 ]; then
  tail -n 60 "$out/console" "$out/manager" >&2
  echo "not as the unit says" >&2
  exit 1
fi
