#!/usr/bin/env bash
# Twenty launchers started at the same moment on an older copy: exactly one upgrades, all
# exit 0, the copy ends complete with no backup left.
. "$(dirname "$0")/e2e-lib.sh"

make_root
make_user_copy 120
N=20

gate=$WORK/gate
mkfifo "$gate"
pids=()
for i in $(seq $N); do
    # Each waits on the gate; closing it releases all of them together.
    (read -r _ <"$gate" || true; QPA=offscreen launcher_env "$ROOT/bin/cloud-quarn-launcher") &
    pids+=($!)
done
sleep 0.5
exec 3>"$gate"
exec 3>&-

failed=0
for pid in "${pids[@]}"; do
    wait "$pid" || failed=$((failed + 1))
done
[[ $failed -eq 0 ]] || fail "$failed launchers exited non-zero"

ran=$(count "launcher.cpp(92): running")
skipped=$(count "launcher.cpp(97): no need to upgrade")
refused=$(count "app has already launched, return")
[[ $((ran - skipped)) -eq 1 ]] || fail "$((ran - skipped)) launchers upgraded"
[[ $((ran + refused)) -eq $N ]] || fail "$ran ran and $refused refused of $N"
[[ "$(user_build)" == "$PKG_BUILD" ]] || fail "user copy is build '$(user_build)'"
[[ -z "$(find "$USER_DIR" -maxdepth 1 -name 'CorvaneQuarn.app_tmp*')" ]] || fail "backup left"
wait_for_client >/dev/null || fail "no client runs"
echo "$N launchers: 1 upgraded, $((ran - 1)) found the copy up to date, $refused refused"
