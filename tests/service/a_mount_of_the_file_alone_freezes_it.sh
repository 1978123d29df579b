#!/bin/bash
# Why the unit shows the agent all of /etc: a mount of /etc/passwd alone, as TemporaryFileSystem=/etc with
# BindReadOnlyPaths=/etc/passwd makes one, goes on showing the file that was there at the start after an account tool
# has replaced it. A mount of the folder does not.
set -eu
if ! unshare -m true 2>/dev/null; then
  echo "skipped: no mount namespace here (it takes root)" >&2
  exit 77
fi
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
mkdir "$work/host" "$work/alone" "$work/whole"
: >"$work/alone/passwd"
echo 'root:x:0:0::/root:/bin/sh' >"$work/host/passwd"
unshare -m --propagation private bash -eu -c '
  cd "$1"
  mount --bind host/passwd alone/passwd
  mount --bind host whole
  cp host/passwd host/passwd.new
  echo toor:x:0:0::/:/bin/sh >>host/passwd.new
  mv host/passwd.new host/passwd # as account tools do it
  grep -q ^toor: whole/passwd || { echo "the folder does not show the new file" >&2; exit 1; }
  if grep -q ^toor: alone/passwd; then echo "the mount of the file follows; the unit could use one" >&2; exit 1; fi
  echo "the mount of the file alone still shows inode $(stat -c %i alone/passwd), the folder $(stat -c %i whole/passwd)"
' - "$work"
