#!/usr/bin/env bash
# The dialog in a Wayland session (sway, headless), on the platform Qt picks there: floated at its
# own size (400 pixels wide) and titled, until the login ends well; a screenshot.
. "$(dirname "$0")/e2e-lib.sh"
command -v sway >/dev/null && command -v grim >/dev/null && command -v jq >/dev/null ||
    { echo "SKIP: sway, grim or jq is not installed" && exit 77; }
QPA= RUN=$WORK/run SHOTS=${ARTIFACT_DIR:-$WORK}/dialog-sway
make_root && make_user_copy 120 && rm -rf "$SHOTS" && mkdir -p "$SHOTS" && mkdir -m 700 "$RUN"
APP_DIR=$ROOT/package/nimbrel slow_start_script 60 # keeps the dialog up for the screenshot
printf 'output HEADLESS-1 resolution 1280x1024\nxwayland disable\n' >"$WORK/sway.cfg"
as_user=() # sway refuses to run as root: then it runs as nobody, in a runtime folder of its own
((EUID)) || { as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups) && chmod 711 "$WORK" &&
    chown 65534:65534 "$RUN"; }
env -i PATH="$PATH" XDG_RUNTIME_DIR="$RUN" WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 \
    WLR_RENDERER=pixman "${as_user[@]}" sway -c "$WORK/sway.cfg" >"$WORK/sway.log" 2>&1 &
EXTRA_PIDS+=($!) && disown # killed at the end, without a word from this shell
ipc() { swaymsg -s "$(echo "$RUN"/sway-ipc.*.sock)" "$@"; }
wait_until "sway to answer on its socket" eval 'ipc -t get_outputs >/dev/null 2>&1'
display=$(echo "$RUN"/wayland-[0-9]) # sway's, made before it answers
run_launcher XDG_SESSION_TYPE=wayland WAYLAND_DISPLAY="$display" & launcher=$!
dialog() { ipc -t get_tree | jq -e '.. | objects | select(.app_id? == "cloud-quarn-launcher")'; }
wait_until "the dialog in sway's tree" eval 'node=$(dialog)'
jq -e '.type == "floating_con" and .name == "Corvane Quarn Client" and .geometry.width == 400 and
    .window_rect.width == 400 and .window_rect.height == .geometry.height' <<<"$node" >/dev/null ||
    fail "the dialog is not floating at its own size: $node"
wait_until "the copy to end" grep -q 'user installation is ready' "$LOG"
sleep 0.5 && WAYLAND_DISPLAY=$display grim "$SHOTS/done.png" # the completion text at 100 %
touch "$APP_DIR/package/start-stop.go"
wait "$launcher" || fail "exit code $?"
echo "floating at its own size: $(jq -c '.rect' <<<"$node"); screenshot in $SHOTS"
