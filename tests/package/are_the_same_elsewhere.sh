#!/bin/bash
# are_the_same_elsewhere.sh FOLDER SOURCES: builds once more, from another folder, on another kind of file system, as
# somebody with another mask, locale and time zone and with other flags in the environment, and compares every byte.
source "$(dirname "$0")/common.sh"
sources=$2

in_namespaces -- "$@"
copy=$work/a/longer/way/to/the/sources
mkdir -p "$copy" "$work/debs"
tar -C "$sources" --exclude=./build --exclude=./.git -cf - . | tar -C "$copy" -xf -
(
  umask 077
  export LC_ALL=C.UTF-8 TZ=Asia/Tokyo HOME=/nonexistent CXXFLAGS=-g SOURCE_DATE_EPOCH=1
  nice "$copy/package" "$work/debs" >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }
)
same "the names of the packages" "$(ls "$packages")" "$(ls "$work/debs")"
for package in "$agent_package" "$dev_package"; do
  other=$work/debs/${package##*/}
  cmp "$package" "$other" && continue
  mkdir "$work/one" "$work/other" # which part it is
  dpkg-deb -R "$package" "$work/one" && dpkg-deb -R "$other" "$work/other"
  diff -r "$work/one" "$work/other" || true
  diff <(dpkg-deb -c "$package") <(dpkg-deb -c "$other") || true
  fail "${package##*/} is another file when it is built elsewhere"
done
sha256sum "$agent_package" "$dev_package"
