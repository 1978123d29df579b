# Sourced by ./run and ./test: what both say and install. Everything here speaks on standard error, so that
# standard output stays with the agent's alerts and the test runner.

say() { printf '\n== %s\n' "$*" >&2; }

# Its own exit code: the agent, the demo and the test runner have theirs.
setup_failed=9
fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit $setup_failed
}

PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin # a plain su leaves them out

build_packages=(g++ cmake ninja-build nlohmann-json3-dev libcli11-dev libspdlog-dev libfmt-dev passwd mount)
packaging_packages=(dpkg-dev file gzip xz-utils)
bench_packages=(libbenchmark-dev gnuplot-nox python3 inotify-tools)

# install_packages NAME...: installs those that are missing, without a question.
install_packages() {
  local name missing=()
  for name in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed || missing+=("$name")
  done
  [ ${#missing[@]} -eq 0 ] && return
  [ "$(id -u)" -eq 0 ] || fail "these packages are missing; start it once as root, or install them: ${missing[*]}"
  say "Installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update >&2 || fail "apt-get update failed"
  # Programs are wanted, and no service: whoever asks before starting one is told not to.
  local veto=/usr/sbin/policy-rc.d installed=yes
  if [ -e $veto ]; then veto=; else printf '#!/bin/sh\nexit 101\n' >$veto && chmod 755 $veto; fi
  apt-get install -y --no-install-recommends "${missing[@]}" >&2 || installed=no
  if [ -n "$veto" ]; then rm -f $veto; fi
  [ $installed = yes ] || fail "apt-get install failed"
}

# build PRESET [TARGET...]: configures and builds one of CMakePresets.json.
build() {
  local preset=$1
  shift
  say "Building: $preset"
  cmake --preset "$preset" >&2 || fail "cannot configure $preset"
  cmake --build --preset "$preset" ${1:+--target "$@"} >&2 || fail "cannot build $preset"
}
