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

# Packages for others name who answers for them; nothing else of them changes.
default="velta maintainers <maintainers@velta.example>"
own="Jo Doe <jo@packages.example.org>"
(cd "$copy" && cmake --preset package "-DVELTA_MAINTAINER=$own" && nice ./package "$work/debs") >"$work/log" 2>&1 ||
  { cat "$work/log" && fail "packages of another maintainer"; }
for package in "$agent_package" "$dev_package"; do
  other=$work/debs/${package##*/}
  same "the maintainer" "$default" "$(dpkg-deb -f "$package" Maintainer)"
  same "the maintainer that was named" "$own" "$(dpkg-deb -f "$other" Maintainer)"
  cmp <(dpkg-deb --fsys-tarfile "$package") <(dpkg-deb --fsys-tarfile "$other") || fail "more than the maintainer changed"
done
! (cd "$copy" && cmake --preset package "-DVELTA_MAINTAINER=jo@packages.example.org") >/dev/null 2>&1 ||
  fail "an address without a name is taken, which dpkg and lintian refuse"
