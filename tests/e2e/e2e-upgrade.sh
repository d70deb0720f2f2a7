#!/usr/bin/env bash
# An older copy with its client running: the launcher replaces the copy, leaves no backup, stops
# the old client and starts one new client, with the user's own GL setting, and exits 0.
. "$(dirname "$0")/e2e-lib.sh"
setup 120
"$APP_DIR/package/start-stop" start
old=$(wait_for_client) || fail "the old client did not start"
login QT_XCB_GL_INTEGRATION=xcb_egl
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy is build '$(user_build)'"
diff -r "$ROOT/package/nimbrel" "$APP_DIR" >/dev/null || fail "user copy differs from the package"
no_backup
new=$(wait_for_client "$old") || fail "the new client did not start"
[[ $(processes_naming "$APP_DIR/bin/cloud-quarn-ui") == "$new" ]] || fail "not one client runs"
client_env "$new" | grep -q -x QT_XCB_GL_INTEGRATION=xcb_egl || fail "the user's GL setting lost"
