#!/usr/bin/env bash
# A second launcher started while one runs returns 0 at once, says why, and runs nothing.
. "$(dirname "$0")/e2e-lib.sh"
setup "$PKG_BUILD"
slow_start_script 60  # holds the first launcher until start-stop.go appears
login &
wait_until "the first launcher's worker" grep -q -s -F "launcher.cpp(92): running" "$LOG"
login
kill -0 $! 2>/dev/null || fail "the first launcher ended before the second returned"
grep -q 'main\.cpp(149): app has already launched, return$' "$LOG" || fail "no 'already' line"
touch "$APP_DIR/package/start-stop.go"
wait $! || fail "the first launcher failed"
[[ $(count "launcher.cpp(92): running") -eq 1 ]] || fail "the second launcher ran the worker"
