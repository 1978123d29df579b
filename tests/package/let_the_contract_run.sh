#!/bin/bash
# let_the_contract_run.sh FOLDER COMPILER: builds the contract suite from the package of headers alone, with the example's
# services as those of an agent of somebody else's, and runs it.
source "$(dirname "$0")/common.sh"

mkdir "$work/installed"
dpkg-deb -x "$dev_package" "$work/installed"
cmake -G Ninja -S "$work/installed/usr/share/doc/libvelta-detect-user-dev/examples/minimal_host" -B "$work/build" \
  -DCMAKE_PREFIX_PATH="$work/installed/usr" -DCMAKE_CXX_COMPILER="$2" -DCMAKE_CXX_FLAGS="-O0"
nice cmake --build "$work/build" --target contract_tests
"$work/build/contract_tests" --gtest_brief=1 | tee "$work/outcome"
grep -E '^\[  PASSED  \] 7[0-9] tests' "$work/outcome" >/dev/null || fail "the suite was not run as a whole"
