#!/bin/bash
# install_at_home.sh FOLDER SOURCES CMAKE: what the packages were made of, installed by an ordinary user with a prefix in
# a folder of theirs. It must be as complete there, and name its own folders.
source "$(dirname "$0")/common.sh"
sources=$2 cmake=$3

# A build of the user's own: one of somebody else's could not even note down what was installed.
home=$work/home prefix=$work/home/somewhere
mkdir "$home" "$home/sources"
chmod 755 "$work"
# What somebody writes into the tree meanwhile is no matter.
{ tar -C "$sources" --exclude=./build --exclude=./.git -cf - . || [ $? -eq 1 ]; } | tar -C "$home/sources" -xf -
cp -a "$sources/build/package" "$home/build"
find "$home/build" -name cmake_install.cmake -exec \
  sed -i "s@$sources/build/package@$home/build@g; s@$sources@$home/sources@g" {} +
! grep -r "\"$sources" "$home/build" --include=cmake_install.cmake || fail "the build still names other folders"
chown -R 65534:65534 "$home"
as_user() { env -i PATH=/usr/bin:/bin HOME="$home" setpriv --reuid 65534 --regid 65534 --clear-groups "$@"; }

as_user test -x "$cmake" || { echo "skipped: nobody but root may run $cmake here" && exit 77; }

install() { as_user "$cmake" --install "$home/build" --prefix "$prefix" >"$work/log" 2>&1 || { cat "$work/log" >&2 && fail "cmake --install"; }; }
install

expected=$(
  { agent_files "$sources"; cat "$(dirname "$0")/libvelta-detect-user-dev.contents"; } |
    sed -E 's@^(\S+) root/root /(usr/)?@\1 @' | sort -k 2
)
same "what is installed" "$expected" "$(cd "$prefix" && find . -type f -printf '%M %P\n' | sort -k 2)"

# The same unit as in the package, but for the folders.
dpkg-deb -x "$agent_package" "$work/package"
unit=lib/systemd/system/velta-agent.service
same "the unit" "$(sed "s@/usr/bin/velta-agent@$prefix/bin/velta-agent@; s@/etc/velta-agent/@$prefix&@; s@/usr/lib/velta@$prefix/lib/velta@" \
  "$work/package/usr/$unit")" "$(cat "$prefix/$unit")"
same "what it starts" "$prefix/bin/velta-agent --policy $prefix/etc/velta-agent/policy.json" \
  "$(sed -n 's/^ExecStart=\(.*\) --syslog .*/\1/p' "$prefix/$unit")"

as_user "$prefix/bin/velta-agent" --once --log-level off --policy "$prefix/etc/velta-agent/policy.json" >"$work/events" ||
  [ $? -eq 1 ] || fail "the agent did not find its module or its policy"
keep_events <"$work/events"

# Installed once more: what an administrator has changed stays, with a word about it, and nothing else does.
install
! grep -q Kept "$work/log" || fail "a word about files that nobody has changed: $(cat "$work/log")"
policy=$prefix/etc/velta-agent/policy.json rules=$prefix/etc/logrotate.d/velta-agent
cp "$prefix/$unit" "$work/unit"
echo '# changed' >>"$prefix/$unit"
echo '{ "of-the-administrator": {} }' >"$policy"
rm "$rules" && ln -s /nowhere "$rules"
install
same "the policy of the administrator" '{ "of-the-administrator": {} }' "$(cat "$policy")"
same "where the rules lead that the administrator turned off" /nowhere "$(readlink "$rules")"
same "the unit" "$(cat "$work/unit")" "$(cat "$prefix/$unit")"
same "what is said of it" "-- Kept, as it was changed: $policy (this version's is $home/sources/packaging/policy/policy.json)
-- Kept, as it was changed: $rules (this version's is $home/sources/packaging/logrotate/velta-agent)" "$(grep Kept "$work/log")"
rm "$policy" "$rules"
install
cmp "$policy" "$sources/packaging/policy/policy.json" || fail "a policy that was removed is not installed"
[ -f "$rules" ] || fail "rules that were removed are not installed"
