#!/bin/bash
# let_the_example_run.sh FOLDER COMPILER [SOURCES BUILD]: builds the example of an agent from the packages, or with the
# tree that was built in BUILD, has it load the module, and waits for its alert of a real useradd.
source "$(dirname "$0")/common.sh"
patience=30
in_namespaces -- "$@"

mkdir "$work/installed"
if [ $# -eq 4 ]; then
  example=$3/examples/minimal_host
  where=-DVeltaDetectUser_DIR=$4
  module=$4/libvelta_detect-user.so
else
  dpkg-deb -x "$agent_package" "$work/installed"
  dpkg-deb -x "$dev_package" "$work/installed"
  example=$work/installed/usr/share/doc/libvelta-detect-user-dev/examples/minimal_host
  where=-DCMAKE_PREFIX_PATH=$work/installed/usr
  module=$work/installed/usr/lib/velta/libvelta_detect-user.so
fi
cmake -G Ninja -S "$example" -B "$work/build" "$where" -DCMAKE_CXX_COMPILER="$2" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON
nice cmake --build "$work/build"
grep -E "VeltaDetectUser_DIR:[A-Z]+=${where#*=}" "$work/build/CMakeCache.txt" || fail "another package file was found"

# A private /etc: the accounts of the machine stay as they are.
mkdir "$work/etc"
cp -a /etc/. "$work/etc"
mount --bind "$work/etc" /etc
mkfifo "$work/alerts"
exec 3<>"$work/alerts"
"$work/build/minimal_host" "$module" >&3 2>"$work/log" &
useradd -o -u 0 -M example-toor 2>/dev/null
IFS= read -r -t $patience alert <&3 || { cat "$work/log" >&2 && fail "no alert"; }
echo "$alert"
keep_events <<<"$alert"
[[ $alert == *'"userName":"example-toor"'* && $alert == *'"eventType":"unauthorized-root-user"'* ]] || fail "another alert"
useradd -o -u 0 -M example-second 2>/dev/null
IFS= read -r -t $patience alert <&3 || fail "no second alert: changes are not watched"
keep_events <<<"$alert"
[[ $alert == *'"userName":"example-second"'* ]] || fail "another alert: $alert"
kill $!
code=0
wait $! || code=$?
[ $code -eq 0 ] || { cat "$work/log" >&2 && fail "the example ended with code $code"; }
