#!/bin/bash
# satisfy_lintian.sh FOLDER: not one error or warning, and no override that hides one.
source "$(dirname "$0")/common.sh"
found=$(lintian --allow-root --no-user-dirs --display-level '>=warning' --show-overrides --tag-display-limit 0 \
  "$agent_package" "$dev_package" 2>"$work/errors") || true
cat "$work/errors" >&2
! grep -qvE '^(running with root privileges|N:|$)' "$work/errors" || fail "lintian itself failed"
same "what lintian says" "" "$found"
