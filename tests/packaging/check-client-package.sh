#!/usr/bin/env bash
# check-client-package passes the sample payload, and names each problem of a payload holding
# one of each, and nothing more.
set -euo pipefail
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
fail() { printf '%s\n' "$@" >&2; exit 1; }
r=$work/root p=$work/root/package/nimbrel check=$SOURCE_DIR/scripts/check-client-package
"$SOURCE_DIR/scripts/make-sample-install" "$r" 121
out=$("$check" "$r") && [[ $(wc -l <<<"$out") -eq 1 ]] || fail "sample payload refused:" "$out"
sed -i 's/^build_version=.*/build_version=abc/' "$r/INFO"
rm "$p/INFO" "$p/bin/cloud-quarn-ui"
chmod 644 "$p/package/start-stop" && chmod 600 "$p/share/doc/README" && mkdir -m 700 "$p/private"
ln -s ../share "$p/bin/to-folder" && ln -s gone "$p/bin/dangling" && ln -s ../package/start-stop "$p/bin/to-file"
mkfifo "$p/bin/fifo" && mknod "$p/bin/device" c 1 3
python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$p/bin/socket"
expected=("$r/INFO: malformed INFO" "$p/INFO: missing INFO" "$p/package/start-stop: start script not"
    "$p/bin/cloud-quarn-ui: missing client UI" "$p/share/doc/README: file other users cannot"
    "$p/private: folder other users cannot" "$p/bin/to-folder: link to a folder"
    "$p/bin/dangling: dangling link" "$p/bin/to-file: link to a file" "$p/bin/fifo: FIFO"
    "$p/bin/device: device" "$p/bin/socket: socket")
rc=0 && out=$("$check" "$r") || rc=$?
[[ $rc -eq 1 && $(wc -l <<<"$out") -eq ${#expected[@]} ]] || fail "exit $rc, or not one line a problem:" "$out"
for line in "${expected[@]}"; do grep -qF "$line" <<<"$out" || fail "not named: $line" "in:" "$out"; done
