#!/usr/bin/env bash
# A second launcher started while one runs returns 0 at once, says why, and runs nothing. The
# client the first one started does not hold its lock, nor does a launcher killed mid-login.
. "$(dirname "$0")/e2e-lib.sh"
setup "$PKG_BUILD"
slow_start_script 60  # holds a launcher at the client's start until start-stop.go appears
login &
ran() { [[ $(count "launcher.cpp(92): running") -eq $1 ]]; }
wait_until "the first launcher's worker" ran 1
login
kill -0 $! 2>/dev/null || fail "the first launcher ended before the second returned"
grep -q 'main\.cpp(149): app has already launched, return$' "$LOG" || fail "no 'already' line"
touch "$APP_DIR/package/start-stop.go"
wait $! || fail "the first launcher failed"
ran 1 || fail "the second launcher ran the worker"
wait_for_client >/dev/null || fail "the first launcher started no client"
rm "$APP_DIR/package/start-stop.go" && run_launcher &
wait_until "a login beside the client the first one started" ran 2
kill -9 $(processes_naming "$ROOT/bin/cloud-quarn-launcher")
touch "$APP_DIR/package/start-stop.go" && login
ran 3 || fail "a launcher killed mid-login left its lock"
