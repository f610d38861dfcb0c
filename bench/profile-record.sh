#!/usr/bin/env bash
# Profiles one recording of the moving scene by our plug-in with perf, in
# steady state (from 5 s after its start to its end), and prints where the
# time went: by part, by thread, by library, and the top functions.
#
#   bench/profile-record.sh [--seconds S] [--region WxH+X+Y] [--no-preview] [--out DIR]
#
# Runs inside a private display of its own; SCREENREEL_BUILD names another
# build tree than build/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=20
out=""
extra=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds) seconds=$2; shift ;;
        --region) extra+=(--region "$2"); shift ;;
        --no-preview) extra+=(--no-preview) ;;
        --out) out=$2; shift ;;
        -h | --help) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) say "unknown option $1"; exit 2 ;;
    esac
    shift
done
out=${out:-$build/bench-out/profile}

if [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    ensure_base_packages linux-perf
    build_targets ScreenReel screenreel-record screenreel-scene
    ensure_session --display -- "$0" --seconds "$seconds" --out "$out" "${extra[@]}"
fi

mkdir -p "$out"
start_scene
trap stop_scene EXIT
echo "$(load_line) at the start"
# Start-up is left out: a host that keeps the plug-in loaded pays it once.
warm=5
began=$(date +%s.%N)
perf record -q -F 499 -g -D $((warm * 1000)) -o "$out/perf.data" -- \
    "$build/host/screenreel-record" -o "$out/recording.mp4" --seconds "$seconds" --audio none \
    "${extra[@]}" >"$out/record.log" 2>&1
ended=$(date +%s.%N)
stop_scene
span=$(awk -v a="$began" -v b="$ended" -v w="$warm" 'BEGIN { printf "%.2f", b - a - w }')
echo "$(load_line) at the end"

report() {
    perf report -i "$out/perf.data" --no-children --stdio -q --percent-limit "$1" "${@:2}" 2>/dev/null |
        grep -v '^$' | grep -v '^#'
}
# Threads keep their names (x264's helpers carry the program's); x264's own
# functions have no symbols in Debian's library, so the thread tells whose
# time a library's is: VideoWorker grabs and hands the frame over (copying
# only where a region is cut), Muxer converts RGB32 to YUV420P and hands it
# to the encoder, the main thread paints the preview.
{
    echo "== CPU seconds per second of the last $span s, by part"
    # The main thread has the lowest thread id of those named after the
    # program; the others of that name are x264's.
    report 0 -n --sort pid,dso -g none | awk -v hz=499 -v seconds="$span" '
        {
            samples[NR] = $2; split($3, t, ":"); tid[NR] = t[1]; comm[NR] = t[2]; dso[NR] = $4
            if (comm[NR] ~ /^screenreel-reco/ && (main == "" || tid[NR] + 0 < main + 0)) main = tid[NR]
        }
        END {
            for (i = 1; i <= NR; i++) {
                c = comm[i]; d = dso[i]
                if (d ~ /libx264/ || (c ~ /^screenreel-reco/ && tid[i] != main)) part = "encoder (x264, every thread)"
                else if (c == "VideoWorker" && d ~ /libyuv/) part = "copies of cut regions (VideoWorker)"
                else if (c == "VideoWorker") part = "grab, decode, hand-over (VideoWorker)"
                else if (c == "Muxer" && d ~ /libyuv/) part = "conversion RGB32 -> YUV420P (Muxer)"
                else if (c == "Muxer") part = "pacing, packets, writing (Muxer)"
                else if (tid[i] == main) part = "GUI thread: events, preview paints"
                else part = "other threads (" c ")"
                sum[part] += samples[i]; total += samples[i]
            }
            for (p in sum) printf "  %6.3f  %s\n", sum[p] / hz / seconds, p
            printf "  %6.3f  in all\n", total / hz / seconds
        }' | sort -rn
    echo "== samples at 499 Hz by thread"
    report 0.5 -n --sort pid,comm -g none
    echo "== by thread and library"
    report 0.5 -n --sort comm,dso -g none
    echo "== top functions (with symbols)"
    report 0.5 --sort comm,dso,sym -g none | grep -v '\] 0x0000'
} | tee "$out/summary.txt"
