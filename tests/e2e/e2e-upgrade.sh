#!/usr/bin/env bash
# An older user copy with its client running: the launcher replaces the copy, stops the old
# client, starts the new one once, leaves no backup and exits 0.
. "$(dirname "$0")/e2e-lib.sh"

make_root
make_user_copy 120
"$APP_DIR/package/start-stop" start
old=$(wait_for_client) || fail "the old client did not start"

rc=0
run_launcher || rc=$?
[[ $rc -eq 0 ]] || fail "exit code $rc"
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy is build '$(user_build)'"
diff -r "$ROOT/package/nimbrel" "$APP_DIR" >/dev/null || fail "user copy differs from the package"
backups=$(find "$USER_DIR" -maxdepth 1 -name 'CorvaneQuarn.app_tmp*')
[[ -z "$backups" ]] || fail "backups left: $backups"
new=$(wait_for_client "$old") || fail "the new client did not start"
! kill -0 "$old" 2>/dev/null || fail "the old client $old still runs"
n=$(clients | wc -l)
[[ $n -eq 1 ]] || fail "$n clients run"
[[ $(count "source version = 120, target version = 121") -eq 1 ]] || fail "decision not logged"
[[ $(count "[DEBUG] launcher.cpp(92): running") -eq 1 ]] || fail "worker did not run once"
[[ $(count "no need to upgrade") -eq 0 ]] || fail "upgrade skipped"
[[ $(count "[ERROR]") -eq 0 ]] || fail "errors logged"
[[ $(count "[DEBUG] launcher.cpp(120): done") -eq 1 ]] || fail "worker did not finish"
echo "upgraded 120 -> 121, client $old stopped, client $new started"
