#!/bin/bash
# is_installed.sh CMAKE BUILD TREE: what the other tests look at, as it is installed: below /usr, as by the package, and
# below /usr/local.
set -eu
cmake=$1 build=$2 tree=$3
rm -rf "$tree"
for prefix in /usr /usr/local; do
  DESTDIR=$tree "$cmake" --install "$build" --component agent --prefix "$prefix"
done
