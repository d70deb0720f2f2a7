#!/usr/bin/env bash
# The dialog under openbox in X (96 DPI): the bar moves between screenshots a second apart, run
# in slices of 0.1 s so the copy spans them on any machine; 400 pixels wide; no minimise or
# maximise asked for, and openbox offers neither (nor full screen, resizing); Alt+F4 stops nothing.
. "$(dirname "$0")/e2e-lib.sh"
QPA=xcb SHOTS=${ARTIFACT_DIR:-$WORK}/dialog-openbox
make_root && rm -rf "$SHOTS" && mkdir -p "$SHOTS" "$ROOT/package/nimbrel/share/many"
# 40,000 empty files: a copy of about a second on a fast machine, of many slices.
(cd "$ROOT/package/nimbrel/share/many" && printf 'f%05d\n' $(seq 40000) | xargs touch)
make_user_copy 120
APP_DIR=$ROOT/package/nimbrel slow_start_script 5 # keeps the dialog up after the copy
openbox --sm-disable >/dev/null 2>&1 &
EXTRA_PIDS+=($!) # up before the dialog maps, or it may manage it unmapped
# Its theme is its last step before it serves: a window mapped earlier may never be shown.
wait_until "openbox to start" eval '[[ $(xprop -root _OB_THEME) == *=* ]]'
printf '#!/bin/sh\necho $$ >"$0.pid"\nkill -STOP $$\nexec "$@"\n' >"$WORK/paused"
chmod 755 "$WORK/paused" && run_launcher "$WORK/paused" & launcher=$!
wait_until "the launcher to pause before it starts" eval \
    '[[ $(cut -d" " -f3 "/proc/$(cat "$WORK/paused.pid" 2>/dev/null)/stat" 2>/dev/null) == T ]]'
pid=$(<"$WORK/paused.pid")
run_slice() { kill -CONT "$pid" && sleep 0.1 && kill -STOP "$pid"; }
viewable() { xdotool search --onlyvisible --name '^Corvane Quarn Client$' | head -1; }
for i in $(seq 600); do # a minute of the launcher's time: the machine may be busy
    run_slice && win=$(viewable) && [[ -n "$win" ]] && break
done
[[ -n "$win" ]] || fail "no window titled 'Corvane Quarn Client' within 600 slices of 0.1 s"
# it draws nothing with GL
! grep -q -e swrast_dri -e xcb-glx-integration "/proc/$pid/maps" || fail "the launcher loaded GL"
copied() { grep -q 'user installation is ready' "$LOG"; }
n=0 moved=0 # screenshots taken while paused during the copy, and changes between them
while ((moved < 2)) && ! copied; do
    sleep 1 && xwd -silent -id "$win" | convert xwd:- "$SHOTS/copy-$n.png"
    ((n == 0)) || [[ $(compare -metric AE "$SHOTS/copy-$((n - 1)).png" "$SHOTS/copy-$n.png" \
        null: 2>&1) == 0 ]] || moved=$((moved + 1))
    n=$((n + 1)) && run_slice
done
kill -CONT "$pid"
((moved >= 2)) || fail "the bar moved in $moved of $n screenshots during the copy"
wait_until "the copy to end" copied
sleep 0.5 # the completion text at 100 %, with openbox's title bar, on the whole screen
xwd -silent -root | convert xwd:- -trim +repage "$SHOTS/done.png"
# _MOTIF_WM_HINTS: flags (1 functions, 2 decorations), functions (1 all, 2 resize, 8 minimise,
# 16 maximise), decorations (1 all, 8 title, 32 minimise, 64 maximise).
read -r -a mwm <<<"$(xprop -id "$win" _MOTIF_WM_HINTS | sed 's/.*= //; s/,/ /g')"
((${#mwm[@]} >= 3 && (mwm[0] & 3) == 3 && (mwm[1] & 27) == 0 && (mwm[2] & 105) == 8)) ||
    fail "window hints allow minimise or maximise, or no title: ${mwm[*]}"
actions=$(xprop -id "$win" _NET_WM_ALLOWED_ACTIONS)
[[ $actions == *_MOVE* && ! $actions =~ MAXIMIZE|MINIMIZE|FULLSCREEN|RESIZE ]] ||
    fail "openbox allows: $actions"
[[ $(xwininfo -id "$win") == *"Width: 400"* ]] || fail "the dialog is not 400 pixels wide"
[[ $(xprop -id "$win" _NET_WM_ICON) == *"Icon (72 x 72)"* ]] || fail "the dialog has no icon"
xdotool key alt+F4
wait "$launcher" || fail "exit code $?"
wait_for_client >/dev/null || fail "no client after the dialog was closed"
echo "bar moved in $moved of $n screenshots a second apart; $actions; screenshots in $SHOTS"
