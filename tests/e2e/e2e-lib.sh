# Shared set-up of the whole-launcher tests: a sample system-wide installation with the built
# launcher in its bin folder, a fresh user home, and clean-up of every client started.
#
# Environment from ctest: LAUNCHER (the built executable), SOURCE_DIR (the repository).
set -euo pipefail

: "${LAUNCHER:?path of the built launcher}"
: "${SOURCE_DIR:?repository root}"

WORK=$(mktemp -d /tmp/lq-e2e-XXXXXX)
ROOT=$WORK/root      # system-wide installation; the launcher runs from ROOT/bin
HOME_DIR=$WORK/home  # the user's home
USER_DIR=$HOME_DIR/.CorvaneQuarn
APP_DIR=$USER_DIR/CorvaneQuarn.app
LOG=$USER_DIR/log/launcher.log
PKG_BUILD=121

fail() {
    echo "FAIL: $*" >&2
    if [[ -f "$LOG" ]]; then
        echo "--- launcher log" >&2
        cat "$LOG" >&2
    fi
    exit 1
}

# Pids of live processes whose command line holds the text (zombies have none). The text goes
# to grep through a file so that grep's own command line does not match.
processes_naming() {  # text
    grep -l -a -F -f <(printf '%s\n' "$1") /proc/[0-9]*/cmdline 2>/dev/null | cut -d/ -f3 || true
}
# The sample clients and helpers this test started: they all run from its folder.
our_processes() { processes_naming "$WORK/"; }
# The sample client processes of the user's copy.
clients() { processes_naming "$APP_DIR/bin/cloud-quarn-ui"; }

EXTRA_PIDS=()  # helpers started by a test whose command line does not name its folder
cleanup() {
    local pid
    for pid in $(our_processes) "${EXTRA_PIDS[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
    done
    rm -rf "$WORK"
}
trap cleanup EXIT

# The sample installation at ROOT (build PKG_BUILD) with the launcher and a level file that
# turns the launcher's, the service's and the extractor's logging up to DEBUG.
make_root() {
    "$SOURCE_DIR/scripts/make-sample-install" "$@" "$ROOT" "$PKG_BUILD" >/dev/null
    mkdir -p "$ROOT/bin" "$HOME_DIR"
    cp "$LAUNCHER" "$ROOT/bin/cloud-quarn-launcher"
    printf 'launcher_debug=7\nservice_debug=7\nextractor_debug=7\n' >"$ROOT/log/launcher.debug"
}

# A user copy of the given build, made from a sample package of that build.
make_user_copy() {  # build
    local old=$WORK/old-$1
    "$SOURCE_DIR/scripts/make-sample-install" "$old" "$1" >/dev/null
    mkdir -p "$USER_DIR"
    rm -rf "$APP_DIR"
    cp -a "$old/package/nimbrel" "$APP_DIR"
}

user_build() { sed -n 's/^build_version=//p' "$APP_DIR/INFO" 2>/dev/null; }

# Runs the launcher as the desktop would at login, with only the environment a session has.
launcher_env() {
    env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$HOME_DIR" LANG=C.UTF-8 \
        QT_QPA_PLATFORM="${QPA:-offscreen}" ${DISPLAY:+DISPLAY=$DISPLAY} \
        ${XAUTHORITY:+XAUTHORITY=$XAUTHORITY} ${ASAN_OPTIONS:+ASAN_OPTIONS=$ASAN_OPTIONS} \
        ${LSAN_OPTIONS:+LSAN_OPTIONS=$LSAN_OPTIONS} ${UBSAN_OPTIONS:+UBSAN_OPTIONS=$UBSAN_OPTIONS} "$@"
}
run_launcher() { launcher_env "$ROOT/bin/cloud-quarn-launcher"; }

# Waits until ui.pid names a live client other than the given pid; prints its pid.
wait_for_client() {  # [old pid]
    local i pid
    for i in $(seq 50); do
        pid=$(sed -n 's/^pid=//p' "$USER_DIR/ui.pid" 2>/dev/null || true)
        if [[ -n "$pid" && "$pid" != "${1:-}" ]] && kill -0 "$pid" 2>/dev/null; then
            echo "$pid"
            return 0
        fi
        sleep 0.1
    done
    return 1
}

count() {  # pattern: number of log lines holding it
    grep -c -F -- "$1" "$LOG" || true
}

# Makes the user copy's start script take the given seconds before it starts the client.
slow_start_script() {  # seconds
    local script=$APP_DIR/package/start-stop
    mv "$script" "$script.real"
    printf '#!/bin/sh\nsleep %s\nexec "$0.real" "$@"\n' "$1" >"$script"
    chmod 755 "$script"
}
