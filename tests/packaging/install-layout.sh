#!/usr/bin/env bash
# `cmake --install` lays out the root, with the client's files when a payload is given (the sample
# passes its check), and an autostart entry naming the launcher for a prefix given either way.
set -euo pipefail
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
fail() { printf '%s\n' "$@" >&2; exit 1; }
check() {  # stage, prefix, expected files under it
    local entry=$1/etc/xdg/autostart/cloud-quarn-launcher.desktop got
    got=$(cd "$1$2" && find . -type f | sort | xargs)
    [[ $got == "$3" ]] || fail "installed under $2: $got"
    grep -qx "Exec=$2/bin/cloud-quarn-launcher" "$entry" || fail "for $2:" "$(cat "$entry")"
    desktop-file-validate "$entry" || fail "autostart entry not valid"
}
DESTDIR=$work/stage cmake --install "$BUILD_DIR" --prefix /usr/local/quarn >/dev/null
check "$work/stage" /usr/local/quarn \
    "./bin/cloud-quarn-launcher ./images/ico_72_nimbrel.png ./log/launcher.debug.example"
"$SOURCE_DIR/scripts/make-sample-install" "$work/payload" 121
out=$(cmake -S "$SOURCE_DIR" -B "$work/build" -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/srv/quarn \
    -DLAUNCHER_CLIENT_PAYLOAD="$work/payload" 2>&1) && [[ $out != *"would fail"* ]] || fail "$out"
for part in client autostart; do
    DESTDIR=$work/client cmake --install "$work/build" --component $part >/dev/null
done
check "$work/client" /srv/quarn "./INFO ./images/ico_72_nimbrel.png ./package/nimbrel.vbx \
./package/nimbrel/INFO ./package/nimbrel/bin/cloud-quarn-ui ./package/nimbrel/package/start-stop \
./package/nimbrel/share/doc/README"
