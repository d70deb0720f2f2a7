#!/usr/bin/env bash
# An upgrade replaces the old copy and its client, without the launcher's GL setting; the next
# login starts no second client, and its ">>>" lines show each path's first character. With the
# client stopped, a login starts it with the user's GL setting.
. "$(dirname "$0")/e2e-lib.sh"
make_root && make_user_copy 120
"$APP_DIR/package/start-stop" start
old=$(wait_for_client) || fail "the old client did not start"
login
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy is build '$(user_build)'"
new=$(wait_for_client "$old") || fail "the new client did not start"
! client_env "$new" | grep -q ^QT_XCB_GL_INTEGRATION= || fail "the client got the GL setting"
login && sleep 0.5 # time for a second client to show
[[ $(clients) == "$new" ]] || fail "not one client runs: $(clients | xargs)"
shown=$(sed -n 's/.* \[INFO\] main\.cpp(\(1[01][0-9]\)): >>> [a-z_]* = /\1/p' "$LOG" |
    tail -7 | xargs) # the second login's
[[ "$shown" == "106/ 107 108/ 109 110 111 112/" ]] || fail "the >>> lines show: $shown"
"$APP_DIR/package/start-stop" stop && wait_until "the client to stop" eval '[[ -z $(clients) ]]'
login QT_XCB_GL_INTEGRATION=xcb_egl
client_env "$(wait_for_client)" | grep -q -x QT_XCB_GL_INTEGRATION=xcb_egl ||
    fail "the user's GL setting lost"
