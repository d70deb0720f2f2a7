#!/usr/bin/env bash
# Twenty launchers at once on an older copy: one upgrades, the others return 0 saying why. The
# client does not hold the launcher's lock, nor does a launcher killed mid-login.
. "$(dirname "$0")/e2e-lib.sh"
make_root && make_user_copy 120
# The copy's start script holds a launcher at the client's start until start-stop.go appears.
APP_DIR=$ROOT/package/nimbrel slow_start_script 60
for i in $(seq 20); do (until [[ -e "$WORK/go" ]]; do sleep 0.01; done && login) & done
touch "$WORK/go"
ran() { [[ $(count "launcher.cpp(92): running") -eq $1 ]]; }
refused() { [[ $(count "main.cpp(149): app has already launched, return") -eq 19 ]]; }
wait_until "one launcher to run and nineteen to return" eval 'ran 1 && refused'
one_runs() { [[ $(processes_naming "$ROOT/bin/cloud-quarn-launcher" | wc -l) -eq 1 ]]; }
wait_until "the nineteen to exit while the one runs" one_runs # a refused one may still be ending
touch "$APP_DIR/package/start-stop.go"
failed=0
for pid in $(jobs -p); do wait "$pid" || failed=$((failed + 1)); done
[[ $failed -eq 0 && "$(user_build)" == "$PKG_BUILD" ]] || fail "$failed failed; build $(user_build)"
wait_for_client >/dev/null || fail "no client runs"
rm "$APP_DIR/package/start-stop.go" && run_launcher &
wait_until "a login beside the client" ran 2
kill -9 $(processes_naming "$ROOT/bin/cloud-quarn-launcher")
touch "$APP_DIR/package/start-stop.go" && login
ran 3 || fail "a launcher killed mid-login left its lock"
