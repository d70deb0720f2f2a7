#!/usr/bin/env bash
# A second launcher started while one runs returns 0 at once and says why.
. "$(dirname "$0")/e2e-lib.sh"

make_root
make_user_copy "$PKG_BUILD"
slow_start_script 3  # keeps the first launcher busy

run_launcher &
first=$!
for i in $(seq 50); do
    [[ $(count "launcher.cpp(92): running") -eq 1 ]] && break
    sleep 0.1
done
[[ $(count "launcher.cpp(92): running") -eq 1 ]] || fail "first launcher not running"

start=$(date +%s%N)
rc=0
run_launcher || rc=$?
ms=$((($(date +%s%N) - start) / 1000000))
[[ $rc -eq 0 ]] || fail "second launcher exit code $rc"
((ms < 2000)) || fail "second launcher took ${ms} ms"
kill -0 "$first" 2>/dev/null || fail "first launcher ended before the second"
grep -q -E '\[DEBUG\] main\.cpp\(149\): app has already launched, return$' "$LOG" ||
    fail "no 'already launched' line"

rc=0
wait "$first" || rc=$?
[[ $rc -eq 0 ]] || fail "first launcher exit code $rc"
[[ $(count "launcher.cpp(92): running") -eq 1 ]] || fail "the second launcher ran the worker"
wait_for_client >/dev/null || fail "the client did not start"
echo "second launcher returned 0 in ${ms} ms"
