#!/usr/bin/env bash
# A copy at the package's build: exit 0, the copy untouched, the client started without the
# launcher's own GL setting, the archive library never loaded; the seven ">>>" lines show only
# the first character of each path ("/" for a set key, nothing for an unset one).
. "$(dirname "$0")/e2e-lib.sh"
setup "$PKG_BUILD"
stamp=$(stat -c %Y.%i "$APP_DIR/INFO")
login LD_DEBUG=files LD_DEBUG_OUTPUT="$WORK/ld"
pid=$(wait_for_client) || fail "the client did not start"
[[ "$(stat -c %Y.%i "$APP_DIR/INFO")" == "$stamp" ]] || fail "the copy was touched"
! client_env "$pid" | grep -q ^QT_XCB_GL_INTEGRATION= || fail "the client got the GL setting"
grep -q file=libQt5Core "$WORK"/ld.* && ! grep -q file=libarchive "$WORK"/ld.* ||
    fail "the archive library was loaded (or no record of the libraries)"
shown=$(sed -n 's/.* \[INFO\] main\.cpp(\(1[01][0-9]\)): >>> [a-z_]* = /\1/p' "$LOG" | xargs)
[[ "$shown" == "106/ 107 108/ 109 110 111 112/" ]] || fail "the >>> lines show: $shown"
