#!/usr/bin/env bash
# A user copy at the package's build: no upgrade, the client is started, exit 0, and the archive
# library is never loaded; the log's seven ">>>" lines show only the first character of each path.
. "$(dirname "$0")/e2e-lib.sh"

make_root
make_user_copy "$PKG_BUILD"
stamp=$(stat -c %Y.%i "$APP_DIR/INFO")

rc=0
mkdir "$WORK/loaded"
launcher_env LD_DEBUG=files LD_DEBUG_OUTPUT="$WORK/loaded/lib" "$ROOT/bin/cloud-quarn-launcher" || rc=$?
[[ $rc -eq 0 ]] || fail "exit code $rc"
pid=$(wait_for_client) || fail "the client did not start"
[[ $(clients | wc -l) -eq 1 ]] || fail "more than one client"
[[ "$(stat -c %Y.%i "$APP_DIR/INFO")" == "$stamp" ]] || fail "the copy was touched"
[[ $(count "launcher.cpp(97): no need to upgrade") -eq 1 ]] || fail "upgrade decision wrong"
[[ $(count "copy package") -eq 0 ]] || fail "package copied"
grep -q "file=libQt5Core" "$WORK"/loaded/lib.* || fail "no record of the libraries loaded"
! grep -q "file=libarchive" "$WORK"/loaded/lib.* || fail "the archive library was loaded"

# Each value is the path's first character ("/" for a set key, nothing for an unset one).
expect_line() {  # line number, key, shown value
    grep -q -x -E ".* \[INFO\] main\.cpp\($1\): >>> $2 = $3" "$LOG" ||
        fail "no line $1 '>>> $2 = $3'"
}
[[ $(count "): >>> ") -eq 7 ]] || fail "not seven >>> lines"
expect_line 106 user_nimbrel_path /
expect_line 107 user_nimbrel_app_path ""
expect_line 108 user_nimbrel_resource_path /
expect_line 109 user_nimbrel_data_path ""
expect_line 110 user_nimbrel_working_dir_path ""
expect_line 111 user_nimbrel_quarn_ui_path ""
expect_line 112 root_resource_path /
echo "up to date at $PKG_BUILD, client $pid started"
