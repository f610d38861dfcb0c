#!/usr/bin/env bash
# The long form of the suite's start/stop stress: COUNT recordings in a row
# through the plug-in (random lengths up to 300 ms, some with sound, some
# ended by their source going away, some whose preview is destroyed midway),
# each checked as the suite checks it: the states, a decodable MP4, no thread
# left behind. A hang ends it after a generous time limit.
#
#   bench/stress-bench.sh [COUNT]     (default 200)
#
# Runs inside a private display and sound server of its own; SCREENREEL_BUILD
# names another build tree than build/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

count=${1:-200}
case "$count" in
    -h | --help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *[!0-9]* | "") say "COUNT is a number"; exit 2 ;;
esac

ensure_base_packages
build_targets ScreenReel RecordingTest
echo "$(load_line) at the start"
say "$count recordings"
# About 1 s each at most, even on a loaded machine; a hang takes far longer.
limit=$((60 + count * 3))
begin=$SECONDS
status=0
SCREENREEL_STRESS_COUNT=$count SCREENREEL_PLUGIN="$build/libScreenReel.so" \
    QT_LOGGING_RULES=screenreel.debug=false \
    timeout -k 10 "$limit" "$bench_root/scripts/session.sh" --display --sound -- \
    "$build/tests/recording/RecordingTest" recordings || status=$?
echo "$(load_line) at the end"
case "$status" in
    0) echo "stress: $count recordings passed in $((SECONDS - begin)) s" ;;
    124) echo "FAILED: stress: not done after $limit s (a hang?)" ;;
    *) echo "FAILED: stress: status $status after $((SECONDS - begin)) s (see above)" ;;
esac
exit "$status"
