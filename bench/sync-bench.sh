#!/usr/bin/env bash
# Records the flashing, beeping scene with sound through our plug-in and, at
# the same time, through the ffmpeg command line twice, then measures in every
# file how far each beep lies from its flash (audio minus video), at the
# start, at the end, and how that drifts.
#
# The command line starts each of its inputs at time zero on its own, so its
# offset holds the time between opening the sound and the screen input, which
# varies from run to run by hundreds of milliseconds. Its second recording
# keeps the devices' own capture times (-copyts): that one shows where sound
# and picture really lie.
#
#   bench/sync-bench.sh [SECONDS] [--out DIR]     (default 60; 600 for ten minutes)
#
# Runs inside a private display and sound server of its own; SCREENREEL_BUILD
# names another build tree than build/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=60
out=""
while [ $# -gt 0 ]; do
    case "$1" in
        --out) out=$2; shift ;;
        -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
        [0-9]*) seconds=$1 ;;
        *) say "unknown option $1"; exit 2 ;;
    esac
    shift
done
out=${out:-$build/bench-out/sync}

if [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    ensure_base_packages
    build_targets ScreenReel screenreel-record screenreel-scene sync-analyse
    ensure_session --display --sound -- "$0" "$seconds" --out "$out"
fi

mkdir -p "$out"
rm -f "$out"/ours.mp4 "$out"/cli.mp4 "$out"/clock.mkv
limit=$((seconds + 30))

start_scene --flash
trap stop_scene EXIT
echo "$(load_line) at the start"
say "recording ${seconds} s three ways at once"
# The sound input is opened first, as its own input, then the screen.
timed "$out/cli.time" timeout --foreground -s INT -k 10 "$limit" \
    ffmpeg -nostdin -y -loglevel error -f pulse -i reel.monitor \
    -f x11grab -framerate 25 -video_size 1920x1080 -i "$DISPLAY" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -t "$seconds" \
    "$out/cli.mp4" >"$out/cli.log" 2>&1 &
cli=$!
# Capture times stay as they are: MP4 cannot hold them, Matroska can. -t
# would count from the epoch here; it is stopped from outside instead.
timed "$out/clock.time" timeout --foreground -s INT -k 10 "$seconds" \
    ffmpeg -nostdin -y -loglevel error -copyts -f pulse -i reel.monitor \
    -f x11grab -framerate 25 -video_size 1920x1080 -i "$DISPLAY" \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac \
    "$out/clock.mkv" >"$out/clock.log" 2>&1 &
clock=$!
timed "$out/ours.time" timeout --foreground -s INT -k 10 "$limit" \
    "$build/host/screenreel-record" -o "$out/ours.mp4" --seconds "$seconds" \
    --audio reel.monitor --no-preview >"$out/ours.log" 2>&1 &
ours=$!
status=0
wait "$ours" || { status=$?; say "our recorder failed ($status): see $out/ours.log"; }
wait "$cli" || { status=$?; say "the ffmpeg CLI failed ($status): see $out/cli.log"; }
# Stopped by the signal, it ends with 255.
wait "$clock" || [ -s "$out/clock.mkv" ] || { status=1; say "the ffmpeg CLI failed: see $out/clock.log"; }
stop_scene
echo "$(load_line) at the end"
[ "$status" -eq 0 ] || exit "$status"

for way in ours cli clock; do
    read -r user sys rss wall < <(tail -n1 "$out/$way.time")
    echo "$way: CPU ${user}+${sys} s over ${wall} s, peak memory $((rss / 1024)) MiB, ended: $(ending "$out/$way.time")"
done
"$build/bench/sync-analyse" "$out/ours.mp4" "$out/cli.mp4" "$out/clock.mkv" | tee "$out/summary.txt"
