# Sourced by the tests of this folder. Each is called with the folder that package.AreBuilt has put the packages into.
set -euo pipefail
export LC_ALL=C
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

packages=$1
agent_package=$(echo "$packages"/velta-agent_*.deb)
dev_package=$(echo "$packages"/libvelta-detect-user-dev_*.deb)

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

# same WHAT EXPECTED FOUND
same() {
  [ "$2" = "$3" ] && return
  diff -u --label expected --label found <(echo "$2") <(echo "$3") >&2 || true
  fail "$1"
}

# Keeps the events on standard input with those of the other tests, which are all held against their schemas.
keep_events() { if [ -n "${VELTA_EVENTS_FILE:-}" ]; then cat >>"$VELTA_EVENTS_FILE"; else cat >/dev/null; fi; }

# agent_files SOURCES: every file that the agent's package should have, with its mode and owner. Of some folders all
# that is in them.
agent_files() {
  cat "$(dirname "$0")/velta-agent.contents"
  {
    (cd "$1/packaging" && find fleet sigma -type f ! -path '*/__pycache__/*')
    (cd "$1/docs" && find schema -type f)
  } | sed 's@^@-rw-r--r-- root/root /usr/share/doc/velta-agent/examples/@'
}

# in_namespaces UNSHARE_OPTION... -- ARGUMENT...: starts the script once more in namespaces of its own, and returns to it
# there, with a file system in memory at $work. Everything that is mounted, and every process, goes with it.
in_namespaces() {
  local options=()
  while [ "$1" != -- ]; do options+=("$1") && shift; done
  shift
  if [ -z "${VELTA_IN_NAMESPACES:-}" ]; then
    local outcome=0
    VELTA_IN_NAMESPACES=$work unshare --mount --propagation private "${options[@]}" "$0" "$@" || outcome=$?
    exit $outcome
  fi
  work=$VELTA_IN_NAMESPACES
  mount -t tmpfs -o mode=755 work "$work"
}

if [ -z "${VELTA_IN_NAMESPACES:-}" ]; then
  work=$(mktemp -d)
  trap 'rm -rf --one-file-system "$work"' EXIT
fi
