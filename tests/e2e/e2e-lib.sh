# Shared set-up of the whole-launcher tests: a sample installation (build PKG_BUILD) with the
# built launcher in its bin folder, a fresh home, and clean-up of every client started.
set -euo pipefail
: "${LAUNCHER:?path of the built launcher}" "${SOURCE_DIR:?repository root}"  # from ctest
WORK=$(mktemp -d /tmp/lq-e2e-XXXXXX) PKG_BUILD=121
ROOT=$WORK/root HOME_DIR=$WORK/home USER_DIR=$WORK/home/.CorvaneQuarn EXTRA_PIDS=()
APP_DIR=$USER_DIR/CorvaneQuarn.app LOG=$USER_DIR/log/launcher.log
fail() { echo "FAIL: $*" >&2; [[ ! -f "$LOG" ]] || sed "s/^/log| /" "$LOG" >&2; exit 1; }
# Live processes whose command line holds the text (read from a file: grep's own would match).
processes_naming() { grep -l -a -F -f <(echo "$1") /proc/[0-9]*/cmdline 2>/dev/null |
    cut -d/ -f3 || :; }
# At the end: all started from the test's folder, and EXTRA_PIDS, the helpers that are not.
trap 'for p in $(processes_naming "$WORK/") "${EXTRA_PIDS[@]}"; do kill -9 $p 2>/dev/null || :
      done; rm -rf "$WORK"' EXIT
make_root() {  # the launcher's and the service's logging at DEBUG
    "$SOURCE_DIR/scripts/make-sample-install" "$ROOT" "$PKG_BUILD" >/dev/null
    mkdir -p "$ROOT/bin" "$HOME_DIR" && cp "$LAUNCHER" "$ROOT/bin/cloud-quarn-launcher"
    printf 'launcher_debug=7\nservice_debug=7\n' >"$ROOT/log/launcher.debug"
}
make_user_copy() {  # build: the user's copy, from a sample package of that build
    "$SOURCE_DIR/scripts/make-sample-install" "$WORK/old-$1" "$1" >/dev/null
    mkdir -p "$USER_DIR" && rm -rf "$APP_DIR" && cp -a "$WORK/old-$1/package/nimbrel" "$APP_DIR"
}
user_build() { sed -n 's/^build_version=//p' "$APP_DIR/INFO" 2>/dev/null; }
count() { grep -s -c -F -- "$1" "$LOG" || :; }  # log lines holding the text
clients() { processes_naming "$APP_DIR/bin/cloud-quarn-ui"; }  # the copy's client processes
client_env() { tr '\0' '\n' <"/proc/$1/environ"; }
# The launcher as the desktop starts it, with only what a session has in its environment
# (and the variables given); login fails the test unless it exits 0.
run_launcher() {
    env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$HOME_DIR" LANG=C.UTF-8 \
        QT_QPA_PLATFORM="${QPA-offscreen}" $(env | grep -E '^(DISPLAY|XAUTHORITY|\w+_OPTIONS)=') \
        "$@" "$ROOT/bin/cloud-quarn-launcher"
}
login() { run_launcher "$@" || fail "launcher exit code $?"; }  # [VARIABLE=value...]
# Up to two minutes, as a busy machine is slow: until the command succeeds, else the test fails.
wait_until() {  # what is awaited, command...
    local end=$((SECONDS + 120))
    until "${@:2}"; do ((SECONDS < end)) || fail "gave up after 120 s waiting for $1"; sleep 0.1; done
}
client_pid() {  # [old pid]: the live client named in ui.pid, if not the given one
    local p; p=$(sed -n 's/^pid=//p' "$USER_DIR/ui.pid" 2>/dev/null) || :
    [[ -n "$p" && "$p" != "${1:-}" ]] && kill -0 "$p" 2>/dev/null && echo "$p"
}
wait_for_client() { wait_until "a client${1:+ other than $1} named in ui.pid" client_pid "$@"; }
# The copy's start script then waits the given seconds, or until start-stop.go appears.
slow_start_script() {  # seconds
    local s=$APP_DIR/package/start-stop; mv "$s" "$s.real"
    printf '#!/bin/sh\nfor i in $(seq %d); do [ -e "$0.go" ] && break; sleep 0.1; done\n%s\n' \
        $(($1 * 10)) 'exec "$0.real" "$@"' >"$s" && chmod 755 "$s"
}
