#!/usr/bin/env bash
# Twenty launchers started at the same moment on an older copy: all exit 0, exactly one
# upgrades, the copy ends complete with no backup left, and a client runs.
. "$(dirname "$0")/e2e-lib.sh"
setup 120
for i in $(seq 20); do (until [[ -e "$WORK/go" ]]; do sleep 0.01; done && login) & done
touch "$WORK/go"
failed=0
for pid in $(jobs -p); do wait "$pid" || failed=$((failed + 1)); done
[[ $failed -eq 0 ]] || fail "$failed launchers exited non-zero"
ran=$(count "launcher.cpp(92): running") refused=$(count "app has already launched, return")
upgraded=$((ran - $(count "launcher.cpp(97): no need to upgrade")))
((upgraded == 1 && ran + refused == 20)) || fail "$upgraded upgraded, $ran ran, $refused refused"
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy is build '$(user_build)'"
no_backup
wait_for_client >/dev/null || fail "no client runs"
