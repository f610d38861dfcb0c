#!/usr/bin/env bash
# A long recording of the whole 1920x1080 screen with sound and the preview
# shown, through the reference recorder, watched while it runs:
#   memory      resident size each second; the peak after the first minute
#               may exceed the peak of the first minute by 5 % at most
#   sound       how far the sound written lags behind the clock, from the
#               per-packet debug lines stamped as they arrive: this is the
#               queue of sound waiting for the encoder plus the fixed capture
#               and encoder latencies; once the picture's start is measured
#               (the first seconds) it must stay under 1 s and not grow
#   output      complete: both tracks, as long as the time recorded
#
#   bench/longrun-bench.sh [SECONDS] [--out DIR]     (default 600)
#
# Runs inside a private display and sound server of its own; SCREENREEL_BUILD
# names another build tree than build/. Exits 1 when a limit is missed.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=600
out=""
while [ $# -gt 0 ]; do
    case "$1" in
        --out) out=$2; shift ;;
        -h | --help) sed -n '2,15s/^# \{0,1\}//p' "$0"; exit 0 ;;
        [0-9]*) seconds=$1 ;;
        *) say "unknown option $1"; exit 2 ;;
    esac
    shift
done
out=${out:-$build/bench-out/longrun}

if [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    ensure_base_packages perl
    build_targets ScreenReel screenreel-record screenreel-scene
    ensure_session --display --sound -- "$0" "$seconds" --out "$out"
fi

mkdir -p "$out"
rm -f "$out"/longrun.mp4 "$out"/memory.log "$out"/lag.log
start_scene
trap stop_scene EXIT
echo "$(load_line) at the start"
say "recording ${seconds} s with sound and preview"

# Every packet's debug line is stamped with the time since the recording
# started, and the sound's lag (that time minus the packet's pts_time) kept.
# Stream 1 is the sound: the picture's track is made first.
QT_LOGGING_RULES=screenreel.debug=true \
    "$build/host/screenreel-record" -o "$out/longrun.mp4" --seconds "$seconds" --audio reel.monitor \
    2> >(perl -MTime::HiRes=time -ne '
        BEGIN { $| = 1 }
        if (/^state: started/) { $t0 = time; next }
        if (defined $t0 && /pts_time:\s+"?([-0-9.]+).*stream_index:\s+1\b/) {
            printf "%.3f %.3f\n", time - $t0, time - $t0 - $1; next
        }
        if (/video frame count adjusted/) { $jumps++; next }
        print STDERR $_ unless /pts_time:/;
        END { print STDERR "picture moved forward to meet the sound: ", $jumps + 0, " times\n" }
    ' >"$out/lag.log") &
recorder=$!

# VmRSS and VmHWM in KiB, once a second, while the recorder lives.
{
    started=$EPOCHREALTIME
    while kill -0 "$recorder" 2>/dev/null; do
        status=$(cat "/proc/$recorder/status" 2>/dev/null) || break
        awk -v t0="$started" -v t="$EPOCHREALTIME" '
            /^VmRSS:/ { rss = $2 } /^VmHWM:/ { hwm = $2 }
            END { if (rss) printf "%.1f %d %d\n", t - t0, rss, hwm }' <<<"$status"
        sleep 1
    done
} >"$out/memory.log" &
sampler=$!

status=0
wait "$recorder" || status=$?
wait "$sampler" || true
stop_scene
echo "$(load_line) at the end"
[ "$status" -eq 0 ] || { say "the recorder failed ($status)"; exit "$status"; }
sleep 1  # the stamping filter may still be writing its last lines

verdict=0
fail() { echo "FAILED: $*"; verdict=1; }

echo "minute  resident MiB (end)  peak MiB  sound lag min..max s"
awk '
    FNR == 1 { file++ }
    file == 1 { m = int($1 / 60); rss[m] = $2; hwm[m] = $3; if (m > last) last = m; next }
    { m = int($1 / 60); if (!(m in lo) || $2 < lo[m]) lo[m] = $2; if (!(m in hi) || $2 > hi[m]) hi[m] = $2 }
    END {
        # The last samples of memory may come after the last packet.
        for (m = 0; m <= last; m++)
            if (m in lo)
                printf "%6d  %19.1f  %8.1f  %6.3f..%.3f\n", m + 1, rss[m] / 1024, hwm[m] / 1024, lo[m], hi[m]
    }' "$out/memory.log" "$out/lag.log"

# Memory: the peak at one minute against the peak at the end.
read -r minute_peak < <(awk '$1 <= 60 { p = $3 } END { print p + 0 }' "$out/memory.log")
read -r final_peak < <(awk 'END { print $3 + 0 }' "$out/memory.log")
growth=$(awk -v a="$minute_peak" -v b="$final_peak" 'BEGIN { printf "%.1f", a ? (b - a) * 100 / a : 0 }')
echo "peak memory: $((minute_peak / 1024)) MiB at one minute, $((final_peak / 1024)) MiB at the end (${growth} %)"
awk -v g="$growth" 'BEGIN { exit !(g <= 5) }' || fail "memory grew by ${growth} % after the first minute"

# Sound: the worst lag, and the worst of the last minute against the first.
# The sound waits for the picture's start to be measured (about 2 s) at
# first: that is the lag of the first seconds, and the limits are for after.
read -r held worst first last < <(awk '
    $1 < 5 { if ($2 > held) held = $2; next }
    { if ($2 > worst) worst = $2; m = int($1 / 60); if ($2 > hi[m]) hi[m] = $2; if (m > end) end = m }
    END { printf "%.3f %.3f %.3f %.3f\n", held, worst, hi[0], hi[end] }' "$out/lag.log")
echo "sound lag: ${held} s while the start is measured; then worst ${worst} s; worst of the first minute ${first} s, of the last ${last} s"
awk -v w="$worst" 'BEGIN { exit !(w < 1) }' || fail "the sound fell ${worst} s behind"
awk -v a="$first" -v b="$last" 'BEGIN { exit !(b - a < 0.2) }' || fail "the sound lag grew from ${first} s to ${last} s"

# Output: both tracks, each as long as what was asked for. The picture's
# length counts the ticks the machine was too busy for: the frame before
# stays on for them.
read -r video_frames < <(ffprobe -v error -select_streams v:0 -count_packets \
    -show_entries stream=nb_read_packets -of csv=p=0 "$out/longrun.mp4")
read -r video_seconds < <(ffprobe -v error -select_streams v:0 \
    -show_entries stream=duration -of csv=p=0 "$out/longrun.mp4")
read -r audio_duration < <(ffprobe -v error -select_streams a:0 \
    -show_entries stream=duration -of csv=p=0 "$out/longrun.mp4")
lost=$(awk -v n="$video_frames" -v v="${video_seconds:-0}" 'BEGIN { printf "%d", v * 25 - n + 0.5 }')
echo "output: picture ${video_seconds} s (${video_frames} frames, ${lost} ticks lost), sound ${audio_duration} s, $(stat -c %s "$out/longrun.mp4") bytes"
awk -v v="${video_seconds:-0}" -v s="$seconds" 'BEGIN { exit !(v >= s - 1 && v <= s + 1) }' ||
    fail "the picture lasts ${video_seconds} s, not ${seconds}"
awk -v v="${video_seconds:-0}" -v a="${audio_duration:-0}" 'BEGIN { d = v - a; exit !(d < 0.5 && d > -0.5) }' ||
    fail "the sound lasts ${audio_duration:-0} s against ${video_seconds} s of picture"
ffmpeg -nostdin -v error -i "$out/longrun.mp4" -f null - 2>"$out/decode.log" && [ ! -s "$out/decode.log" ] ||
    fail "the file does not decode cleanly (see $out/decode.log)"

exit "$verdict"
