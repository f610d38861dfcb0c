#!/usr/bin/env bash
# Records the flashing, beeping scene with sound through our plug-in and, at
# the same time, through the ffmpeg command line twice, then measures in every
# file how far each beep lies from its flash (audio minus video), at the
# start, at the end, and how that drifts.
#
# The command line starts each of its inputs at time zero on its own, so its
# offset holds the time between opening the sound and the screen input, which
# varies from run to run by hundreds of milliseconds. Its second recording
# keeps the devices' own capture times (-copyts, every frame's to the
# millisecond): that one shows where sound and picture really lie, and ours
# is judged against it; the plain command line is printed for comparison.
#
#   bench/sync-bench.sh [SECONDS] [--load N] [--runs K] [--suspend AT:FOR]
#                       [--server pulse|pipewire] [--out DIR]
#
# SECONDS defaults to 60 (600 for ten minutes). --load keeps N busy processes
# running during each recording, --runs repeats the whole, --suspend stops
# the sound source AT seconds in for FOR seconds, --server picks the sound
# server (PulseAudio, or PipeWire with its PulseAudio server, which every
# recorder here goes through). One line a run, then how many runs kept ours
# within 45 ms of the capture-time reference at the start and at the end; the
# drift is judged only from 600 s on (over a minute it is mostly the scatter
# of single pairs). Runs inside a private display and sound server of its
# own; SCREENREEL_BUILD names another build tree than build/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=60
load=0
runs=1
suspend=""
server=pulse
out=""
while [ $# -gt 0 ]; do
    case "$1" in
        --load) load=$2; shift ;;
        --runs) runs=$2; shift ;;
        --suspend) suspend=$2; shift ;;
        --server) server=$2; shift ;;
        --out) out=$2; shift ;;
        -h | --help) sed -n '2,25s/^# \{0,1\}//p' "$0"; exit 0 ;;
        [0-9]*) seconds=$1 ;;
        *) say "unknown option $1"; exit 2 ;;
    esac
    shift
done
out=${out:-$build/bench-out/sync}
case "$server" in
    pulse | pipewire) ;;
    *) say "--server takes pulse or pipewire"; exit 2 ;;
esac
if [ -n "$suspend" ] && ! [[ $suspend =~ ^[0-9]+:[0-9]+$ ]]; then
    say "--suspend takes AT:FOR in whole seconds"
    exit 2
fi
if [ -n "$suspend" ] && [ "$server" = pipewire ] && [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    # Measured with PipeWire 0.3.65: the sink reads RUNNING all along, and
    # every recorder gets digital silence from the suspend to its end.
    say "on PipeWire the null sink's monitor stays silent after a suspend: expect no beeps after it"
fi

if [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    if [ "$server" = pipewire ]; then
        ensure_base_packages pipewire pipewire-bin wireplumber pipewire-pulse dbus
    else
        ensure_base_packages
    fi
    build_targets ScreenReel screenreel-record screenreel-scene sync-analyse
    ensure_session --display --sound "$server" -- "$0" "$seconds" --load "$load" --runs "$runs" \
        ${suspend:+--suspend "$suspend"} --server "$server" --out "$out"
fi

limit=$((seconds + 30))
busy=()
stop_busy() {
    local pid
    for pid in "${busy[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    busy=()
}
trap 'stop_busy; stop_scene' EXIT

# One recording three ways at once into DIR; 0 when all three made a file.
record() {
    local dir=$1
    mkdir -p "$dir"
    rm -f "$dir"/ours.mp4 "$dir"/cli.mp4 "$dir"/clock.mkv
    start_scene --flash
    local i
    for ((i = 0; i < load; i++)); do
        bash -c 'while :; do :; done' &
        busy+=($!)
    done
    echo "$(load_line) at the start"
    # The sound input is opened first, as its own input, then the screen.
    timed "$dir/cli.time" timeout --foreground -s INT -k 10 "$limit" \
        ffmpeg -nostdin -y -loglevel error -f pulse -i reel.monitor \
        -f x11grab -framerate 25 -video_size 1920x1080 -i "$DISPLAY" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -t "$seconds" \
        "$dir/cli.mp4" >"$dir/cli.log" 2>&1 &
    local cli=$!
    # Capture times stay as they are: MP4 cannot hold them, Matroska can. -t
    # would count from the epoch here; it is stopped from outside instead.
    # Left to its frame-rate sync, the command line moves every frame onto a
    # 40 ms grid of its own, and its picture then lay 25 to 49 ms later than
    # the frames' capture times in four runs: passthrough keeps them.
    timed "$dir/clock.time" timeout --foreground -s INT -k 10 "$seconds" \
        ffmpeg -nostdin -y -loglevel error -copyts -f pulse -i reel.monitor \
        -f x11grab -framerate 25 -video_size 1920x1080 -i "$DISPLAY" \
        -fps_mode passthrough -enc_time_base:v -1 \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac \
        "$dir/clock.mkv" >"$dir/clock.log" 2>&1 &
    local clock=$!
    timed "$dir/ours.time" timeout --foreground -s INT -k 10 "$limit" \
        "$build/host/screenreel-record" -o "$dir/ours.mp4" --seconds "$seconds" \
        --audio reel.monitor --no-preview >"$dir/ours.log" 2>&1 &
    local ours=$!
    local pause=""
    if [ -n "$suspend" ]; then
        (sleep "${suspend%%:*}"; pactl suspend-sink reel 1; sleep "${suspend#*:}"; pactl suspend-sink reel 0) &
        pause=$!
    fi
    local status=0
    wait "$ours" || { status=$?; say "our recorder failed ($status): see $dir/ours.log"; }
    wait "$cli" || { status=$?; say "the ffmpeg CLI failed ($status): see $dir/cli.log"; }
    # Stopped by the signal, it ends with 255.
    wait "$clock" || [ -s "$dir/clock.mkv" ] || { status=1; say "the ffmpeg CLI failed: see $dir/clock.log"; }
    [ -z "$pause" ] || wait "$pause"
    echo "$(load_line) at the end"
    stop_busy
    stop_scene
    return "$status"
}

# "start end drift" in ms of the file named in sync-analyse's output.
figures() {  # output file
    awk -v f="$2" '
        $0 == f { hit = 1; next }
        hit && /offset \(audio minus video\)/ { s = $6; e = $9 }
        hit && /drift .* ms\/min$/ { print s + 0, e + 0, $2 + 0; exit }' "$1"
}

# A minute's drift estimate scatters by up to 25 ms/min at load: only a long
# run is judged on it.
drift_limit=()
[ "$seconds" -ge 600 ] && drift_limit=(--max-drift 2)

kept=0
for ((run = 1; run <= runs; run++)); do
    dir=$out
    [ "$runs" -gt 1 ] && dir=$out/run$run
    say "run $run of $runs: recording ${seconds} s three ways at once, load $load, sound server $server"
    if ! record "$dir"; then
        echo "run $run: no recording to measure"
        continue
    fi
    for way in ours cli clock; do
        read -r user sys rss wall < <(tail -n1 "$dir/$way.time")
        echo "$way: CPU ${user}+${sys} s over ${wall} s, peak memory $((rss / 1024)) MiB, ended: $(ending "$dir/$way.time")"
    done
    verdict=within
    # Ours is judged against the capture-time reference; the plain command
    # line only for comparison.
    "$build/bench/sync-analyse" "${drift_limit[@]}" ${suspend:+--silence "${suspend}"} \
        "$dir/ours.mp4" "$dir/clock.mkv" "$dir/cli.mp4" >"$dir/summary.txt" || verdict=OUTSIDE
    cat "$dir/summary.txt"
    read -r os oe od < <(figures "$dir/summary.txt" "$dir/ours.mp4")
    read -r rs re rd < <(figures "$dir/summary.txt" "$dir/clock.mkv")
    line=$(awk -v os="$os" -v oe="$oe" -v od="$od" -v rs="$rs" -v re="$re" -v rd="$rd" 'BEGIN {
        printf "ours start %+.1f end %+.1f drift %+.2f ms/min; -copyts start %+.1f end %+.1f drift %+.2f; ours minus it start %+.1f end %+.1f ms",
               os, oe, od, rs, re, rd, os - rs, oe - re }')
    extra=$(grep -E '^(silence|sound minus)' "$dir/summary.txt" | sed 's/ (limit [0-9]*)//' | paste -sd';' - || true)
    echo "run $run: $line${extra:+; $extra}: $verdict"
    [ "$verdict" = within ] && kept=$((kept + 1))
done
echo "$kept of $runs runs: ours within 45 ms of the -copyts reference at start and end${drift_limit:+, drift under 2 ms/min}${suspend:+, the silence kept}"
