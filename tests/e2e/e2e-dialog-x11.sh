#!/usr/bin/env bash
# The progress dialog in a real X server (run under xvfb-run at 96 DPI, no window manager).
#
# An upgrade is held open by a client that ignores SIGTERM: the launcher waits about five
# seconds for it before the forced stop, with the dialog up. Meanwhile the window titled
# "Corvane Quarn Client" must exist, be 400 pixels wide, and offer no minimise or maximise
# button. Without a window manager there are no _NET_WM_ALLOWED_ACTIONS to read, so the
# check is on what the window asks of any window manager: its _MOTIF_WM_HINTS (functions
# and decorations) must carry neither minimise nor maximise, and its size hints must fix
# the width. A screenshot goes to the build folder and must not be blank.
# Then, with the copy up to date and a start script that takes 6 s (longer than the 4 s
# after which a progress dialog would show itself), no such window may ever appear.
. "$(dirname "$0")/e2e-lib.sh"
: "${DISPLAY:?run under xvfb-run}"
QPA=xcb
TITLE="Corvane Quarn Client"

make_root
make_user_copy 120
bash -c 'trap "" TERM; exec sleep 30' &
stubborn=$!
EXTRA_PIDS+=("$stubborn")
echo "pid=$stubborn" >"$USER_DIR/ui.pid"

run_launcher &
launcher=$!

win=""
for i in $(seq 600); do  # up to a minute: the machine may be busy
    win=$(xwininfo -root -tree 2>/dev/null | grep -F "\"$TITLE\"" | awk '{print $1}' | head -1 || true)
    [[ -n "$win" ]] && break
    sleep 0.1
done
[[ -n "$win" ]] || fail "no window titled '$TITLE' within 60 s of the upgrade's start"
sleep 0.5  # let it paint

info=$(xwininfo -id "$win")
width=$(awk '/Width:/ {print $2}' <<<"$info")
[[ "$width" == 400 ]] || fail "window is $width pixels wide"
grep -q 'Map State: IsViewable' <<<"$info" || fail "window not mapped"
for p in $(processes_naming "$ROOT/bin/cloud-quarn-launcher"); do  # it draws nothing with GL
    ! grep -q -e swrast_dri -e xcb-glx-integration "/proc/$p/maps" || fail "the launcher loaded GL"
done

# _MOTIF_WM_HINTS = flags, functions, decorations, input mode, status.
read -r -a mwm <<<"$(xprop -id "$win" _MOTIF_WM_HINTS | sed 's/.*= //; s/,/ /g')"
[[ ${#mwm[@]} -ge 3 ]] || fail "no _MOTIF_WM_HINTS on the window"
flags=$((mwm[0])) functions=$((mwm[1])) decorations=$((mwm[2]))
# Decorations (flag 2) are what a window manager draws: 1 all, 8 title, 32 minimise button,
# 64 maximise button. Functions (flag 1), when given, are what it allows: 1 all, 8 minimise,
# 16 maximise.
(((flags & 2))) || fail "window leaves its decorations to the window manager"
(((decorations & (1 | 32 | 64)) == 0)) || fail "window has minimise or maximise buttons ($decorations)"
(((decorations & 8))) || fail "window has no title bar ($decorations)"
if ((flags & 1)); then
    (((functions & (1 | 8 | 16)) == 0)) || fail "window can be minimised or maximised ($functions)"
fi
hints=$(xprop -id "$win" WM_NORMAL_HINTS)
grep -q 'minimum size: 400 by' <<<"$hints" && grep -q 'maximum size: 400 by' <<<"$hints" ||
    fail "width is not fixed: $hints"

shot=${ARTIFACT_DIR:-$WORK}/progress-dialog.png
xwd -silent -id "$win" | convert xwd:- "$shot"
colours=$(convert "$shot" -format '%k' info:)
deviation=$(convert "$shot" -colorspace Gray -format '%[fx:standard_deviation]' info:)
((colours > 2)) || fail "screenshot is blank ($colours colours)"
awk -v d="$deviation" 'BEGIN { exit !(d > 0.01) }' || fail "screenshot is flat ($deviation)"

rc=0
wait "$launcher" || rc=$?
[[ $rc -eq 0 ]] || fail "exit code $rc"
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy not upgraded"
! xwininfo -root -tree | grep -q -F "\"$TITLE\"" || fail "dialog left on screen"
echo "dialog: window $win, ${width} px, motif functions $functions decorations $decorations," \
    "screenshot $shot ($colours colours)"

# Second login: up to date, slow start script; the dialog must never show.
wait_for_client "$stubborn" >/dev/null || fail "the client did not start"
kill -TERM "$(sed -n 's/^pid=//p' "$USER_DIR/ui.pid")"
slow_start_script 6
run_launcher &
launcher=$!
while kill -0 "$launcher" 2>/dev/null; do
    ! xwininfo -root -tree | grep -q -F "\"$TITLE\"" || fail "dialog shown on an up-to-date login"
    sleep 0.2
done
rc=0
wait "$launcher" || rc=$?
[[ $rc -eq 0 ]] || fail "second exit code $rc"
[[ $(count "no need to upgrade") -eq 1 ]] || fail "second login upgraded"
echo "up-to-date login with a 6 s start script: no dialog"
