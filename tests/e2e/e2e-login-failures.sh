#!/usr/bin/env bash
# At the default levels a good login leaves no warning; a login without a display (which still
# upgrades and starts the client), a package INFO without a build and a home with a space (where
# the start script cannot run, as when it is missing) each leave one WARNING naming it, and exit 0.
. "$(dirname "$0")/e2e-lib.sh"
login() { # the text of the one WARNING line this login must write ("" for none), variables
    rm -f "$LOG" && { run_launcher "${@:2}" || fail "exit code $?"; }
    local want=$((${#1} > 0))
    [[ $(count "[WARNING]") -eq $want && $(count "${1:-[WARNING]}") -eq $want ]] ||
        fail "not one '$1'"
}
make_root && rm "$ROOT/log/launcher.debug" && make_user_copy "$PKG_BUILD"
login "" && old=$(wait_for_client) || fail "the client did not start"
make_user_copy 120 && QPA= login "no progress dialog can be shown" DISPLAY= WAYLAND_DISPLAY=
[[ $(user_build) == "$PKG_BUILD" ]] && wait_for_client "$old" >/dev/null || fail "no upgrade"
cp "$ROOT/INFO" "$WORK/INFO" && echo garbage >"$ROOT/INFO"
login "the package version file '$ROOT/INFO' holds no build number"
mv "$WORK/INFO" "$ROOT/INFO"
HOME_DIR="$WORK/home two" USER_DIR="$WORK/home two/.CorvaneQuarn" && mkdir -p "$HOME_DIR"
APP_DIR=$USER_DIR/CorvaneQuarn.app LOG=$USER_DIR/log/launcher.log
login "cannot run the client's start script: '$APP_DIR/package/start-stop start' (exit status -2)"
echo "one warning for each failure"
