#!/usr/bin/env bash
# Records the same moving scene, the whole 1920x1080 screen and a centred
# 1280x720 region of it, four ways: our plug-in with and without its
# preview, the ffmpeg command line, and SimpleScreenRecorder without its
# window; over several rounds, each in another order of the ways, so that
# whatever else the machine does falls on all of them alike.
#
# Each recorder is judged in steady state: its CPU time from /proc between
# a few seconds after its start and just before its stop, per wall second.
# Printed are the medians over the rounds with their range, the whole
# process's cost per recorded second beside them, the one-off cost of a
# process (start and finish) and of loading the plug-in once, the floor (the
# encoder alone at our constants on the first 10 s of our recording's frames,
# from memory), our ratios, and a last line saying which goals hold. Sound
# is off throughout.
#
#   bench/record-bench.sh [--seconds S] [--rounds N] [--ways LIST] [--out DIR]
#
# LIST is a comma-separated choice of preview,plugin,ffmpeg,ssr (default all).
# Runs inside a private display of its own; SCREENREEL_BUILD names another
# build tree than build/.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

seconds=20
rounds=3
ways=preview,plugin,ffmpeg,ssr
out=""
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds) seconds=$2; shift ;;
        --rounds) rounds=$2; shift ;;
        --ways) ways=$2; shift ;;
        --out) out=$2; shift ;;
        -h | --help) sed -n '2,21s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) say "unknown option $1"; exit 2 ;;
    esac
    shift
done
out=${out:-$build/bench-out/record}

if [ -z "${SCREENREEL_BENCH_SESSION:-}" ]; then
    ensure_base_packages simplescreenrecorder
    build_targets ScreenReel screenreel-record screenreel-scene encode-floor
    ensure_session --display -- "$0" --seconds "$seconds" --rounds "$rounds" --ways "$ways" --out "$out"
fi

mkdir -p "$out"
rm -f "$out"/*.mp4 "$out"/*.time "$out"/*.floor "$out"/*.pid "$out"/*.steady "$out"/*.list
fps=25
# Generous: a recorder that hangs is cut off, and its row says so.
limit=$((seconds + 30))
# The steady-state window: from `warm` seconds after a recorder's start, for
# `window` seconds, which end well before it stops.
warm=5
window=$((seconds - warm - 3))
[ "$window" -ge 2 ] || { say "--seconds must be 10 or more"; exit 2; }

# Prefixed to a recorder's command with a FILE: the recorder's process id
# goes there first, the process that /proc is read for, not one of the
# wrappers around it.
as_pid=(sh -c 'echo $$ >"$0"; exec "$@"')

# The CPU time, in clock ticks, that process PID and all its threads spent.
ticks() {
    sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | awk '{ print $12 + $13 }'
}

# Measures the recording named NAME in steady state while it runs: writes
# "CPU seconds per second" to NAME.steady, or nothing when the recorder
# ended too early.
steady() {  # name
    local name=$1 pid="" _ t0 t1 c0 c1 hz
    hz=$(getconf CLK_TCK)
    for _ in $(seq 100); do
        pid=$(cat "$out/$name.pid" 2>/dev/null || true)
        [ -n "$pid" ] && break
        sleep 0.05
    done
    [ -n "$pid" ] || return 0
    sleep "$warm"
    t0=$(date +%s.%N); c0=$(ticks "$pid")
    sleep "$window"
    t1=$(date +%s.%N); c1=$(ticks "$pid")
    [ -n "$c0" ] && [ -n "$c1" ] || return 0
    awk -v c="$((c1 - c0))" -v hz="$hz" -v t0="$t0" -v t1="$t1" 'BEGIN { printf "%.4f\n", c / hz / (t1 - t0) }' \
        >"$out/$name.steady"
}

record_plugin() {  # name geometry [--no-preview]
    local name=$1 geometry=$2
    shift 2
    local region=()
    [ "$geometry" != 1920x1080+0+0 ] && region=(--region "$geometry")
    timed "$out/$name.time" timeout --foreground -s INT -k 10 "$limit" "${as_pid[@]}" "$out/$name.pid" \
        "$build/host/screenreel-record" -o "$out/$name.mp4" --seconds "$seconds" --audio none \
        "${region[@]}" "$@" >"$out/$name.log" 2>&1
}

record_ffmpeg() {  # name geometry
    local name=$1 geometry=$2
    local size=${geometry%%+*} offset=${geometry#*+}
    timed "$out/$name.time" timeout --foreground -s INT -k 10 "$limit" "${as_pid[@]}" "$out/$name.pid" \
        ffmpeg -nostdin -y -loglevel error -f x11grab -framerate "$fps" -video_size "$size" \
        -i "$DISPLAY+${offset/+/,}" -c:v libx264 -preset ultrafast -pix_fmt yuv420p \
        -t "$seconds" "$out/$name.mp4" >"$out/$name.log" 2>&1
}

# The settings of a fixed area at 25 frames a second, H.264 at its fastest
# preset in MP4, no sound, every frame kept, nothing but the recording page.
write_ssr_settings() {  # file geometry output
    local size=${2%%+*} offset=${2#*+}
    cat >"$1" <<EOF
[input]
audio_enabled=false
video_area=fixed
video_x=${offset%%+*}
video_y=${offset#*+}
video_w=${size%x*}
video_h=${size#*x}
video_frame_rate=$fps
video_record_cursor=false
video_scale=false

[output]
file=$3
add_timestamp=false
separate_files=false
container=mp4
video_codec=h264
video_h264_crf=23
video_h264_preset=0
video_allow_frame_skipping=false

[record]
show_recording_area=false
sound_notifications_enable=false

[welcome]
skip_page=true
EOF
}

# Headless: commands arrive on its standard input. It starts recording at
# once; the clock starts when its log says the capture runs (its statistics
# lag by up to a second).
record_ssr() {  # name geometry
    local name=$1 geometry=$2
    local dir="$out/$name.ssr"
    rm -rf "$dir"
    mkdir -p "$dir"
    write_ssr_settings "$dir/settings.conf" "$geometry" "$out/$name.mp4"
    mkfifo "$dir/commands"
    exec 7<>"$dir/commands"
    HOME=$dir timed "$out/$name.time" timeout --foreground -k 10 "$((limit + 30))" "${as_pid[@]}" "$out/$name.pid" \
        simplescreenrecorder --settingsfile="$dir/settings.conf" --logfile="$dir/log.txt" \
        --no-systray --start-hidden --start-recording <"$dir/commands" >"$out/$name.log" 2>&1 &
    local pid=$! _
    for _ in $(seq 300); do
        grep -q 'Input thread started' "$dir/log.txt" 2>/dev/null && break
        sleep 0.1
    done
    sleep "$seconds"
    echo record-save >&7
    # Saving finishes the file before the next command is read.
    echo quit >&7
    wait "$pid" || true
    exec 7>&-
}

label() {
    case "$1" in
        preview) echo "plug-in, preview" ;;
        plugin) echo "plug-in, no preview" ;;
        ffmpeg) echo "ffmpeg CLI" ;;
        ssr) echo "SimpleScreenRecorder" ;;
    esac
}

start_scene
trap stop_scene EXIT
echo "$(load_line) at the start"
read -r -a wayList <<<"${ways//,/ }"
for ((round = 1; round <= rounds; round++)); do
    for geometry in 1920x1080+0+0 1280x720+320+180; do
        # Each round starts one way further on.
        for ((i = 0; i < ${#wayList[@]}; i++)); do
            way=${wayList[$(((i + round - 1) % ${#wayList[@]}))]}
            name="${geometry%%+*}-$way-$round"
            say "round $round: recording ${geometry%%+*}-$way ($(load_line))"
            case "$way" in
                preview) record_plugin "$name" "$geometry" &;;
                plugin) record_plugin "$name" "$geometry" --no-preview &;;
                ffmpeg) record_ffmpeg "$name" "$geometry" &;;
                ssr) record_ssr "$name" "$geometry" &;;
                *) say "unknown way $way"; exit 2 ;;
            esac
            steady "$name"
            wait $! || true
        done
    done
    # Starting a process and loading the plug-in once, without recording.
    timed "$out/list-$round.time" "$build/host/screenreel-record" --list >/dev/null 2>&1 || true
done
stop_scene

# The floor: what the encoder alone costs on the same frames, decoded into
# memory first (the first recording of ours of each size that has them).
for geometry in 1920x1080+0+0 1280x720+320+180; do
    size=${geometry%%+*}
    for way in plugin preview; do
        [ -s "$out/$size-$way-1.mp4" ] || continue
        say "encoding $size-$way-1.mp4 again, the encoder alone"
        "$build/bench/encode-floor" "$out/$size-$way-1.mp4" 10 >"$out/$size.floor" 2>"$out/$size.floor.log" || true
        break
    done
done
echo "$(load_line) at the end"

# One line a recording: its steady CPU per second, its whole cost per second
# it recorded (its length in the file), its one-off cost (the whole less the
# steady rate over its run), peak memory, and how many frames are in the
# file against the time it was given, how many of them new pictures rather
# than repeats.
{
    for ((round = 1; round <= rounds; round++)); do
        read -r user sys _ _ < <(tail -n1 "$out/list-$round.time" 2>/dev/null) && echo "list|$user|$sys"
    done
    for geometry in 1920x1080+0+0 1280x720+320+180; do
        size=${geometry%%+*}
        for way in "${wayList[@]}"; do
            for ((round = 1; round <= rounds; round++)); do
                name="$size-$way-$round"
                read -r user sys rss wall < <(tail -n1 "$out/$name.time" 2>/dev/null) || { user=nan sys=nan rss=nan wall=nan; }
                read -r frames distinct duration <<<"$(probe_video "$out/$name.mp4" || true)"
                steadyCpu=$(cat "$out/$name.steady" 2>/dev/null || echo nan)
                echo "rec|$size|$way|$(label "$way")|$steadyCpu|$user|$sys|$rss|$wall|${frames:-0}|${duration:-0}|${distinct:-0}|$(ending "$out/$name.time")"
            done
        done
        read -r frames floorCpu floor < <(cat "$out/$size.floor" 2>/dev/null) || true
        echo "floor|$size|${frames:-0}|${floor:-0}"
    done
} | awk -F'|' -v fps="$fps" -v seconds="$seconds" -v rounds="$rounds" -v warm="$warm" -v window="$window" '
    function verdict(ok) { return ok ? "holds" : "MISSED" }
    # Median and range of the values in list (space-separated).
    function stats(list,    n, v, i, j, t) {
        n = split(list, v, " ")
        for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (v[j] + 0 < v[i] + 0) { t = v[i]; v[i] = v[j]; v[j] = t }
        if (!n) { MED = 0; LO = 0; HI = 0; return 0 }
        MED = n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2; LO = v[1]; HI = v[n]
        return n
    }
    $1 == "list" { LIST = LIST " " ($2 + $3); next }
    $1 == "floor" { if ($3 > 0) FLOOR[$2] = $4; FLOORFRAMES[$2] = $3; next }
    {
        k = $2 "|" $3
        if (!seenSize[$2]++) sizes[++ns] = $2
        if (!seenWay[$3]++) { wayorder[++nw] = $3; LABEL[$3] = $4 }
        whole = $10 > 0 && $11 > 0 ? ($6 + $7) / $11 : 0
        if ($5 != "nan") STEADY[k] = STEADY[k] " " $5
        if (whole > 0) WHOLE[k] = WHOLE[k] " " whole
        if ($5 != "nan" && $9 > 0) ONEOFF[k] = ONEOFF[k] " " ($6 + $7 - $5 * $9)
        if ($8 != "nan") RSS[k] = RSS[k] " " $8 / 1024
        if (!(k in FRAMESMIN) || $10 < FRAMESMIN[k]) FRAMESMIN[k] = $10
        if (!(k in REPEATS) || $10 - $12 > REPEATS[k]) REPEATS[k] = $10 - $12
        if ($13 != "ok") ENDED[k] = ENDED[k] " " $13
    }
    END {
        printf "steady state: CPU from /proc from %d s after each start for %d s; medians of %d rounds (range)\n", warm, window, rounds
        printf "%-9s  %-21s  %-23s  %-8s  %-8s  %-7s  %-10s  %s\n", "size", "way", "steady CPU s/s", "whole", "one-off", "RSS MiB",
               "frames min", "repeats max"
        for (i = 1; i <= ns; i++) {
            z = sizes[i]
            for (a = 1; a <= nw; a++) {
                k = z "|" wayorder[a]
                if (stats(STEADY[k])) { S[k] = MED; range = sprintf("%.3f (%.3f-%.3f)", MED, LO, HI) } else range = "-"
                stats(WHOLE[k]); whole = MED
                stats(ONEOFF[k]); oneoff = MED
                stats(RSS[k]); M[k] = MED
                printf "%-9s  %-21s  %-23s  %8.3f  %7.2f s  %7.0f  %10d  %d%s\n", z, LABEL[wayorder[a]], range, whole, oneoff, MED,
                       FRAMESMIN[k], REPEATS[k], ENDED[k] ? "  ended:" ENDED[k] : ""
            }
            if (FLOOR[z] > 0)
                printf "%-9s  %-21s  %-23.3f  (the encoder alone, %d frames from memory)\n", z, "x264 alone (floor)", FLOOR[z], FLOORFRAMES[z]
        }
        if (stats(LIST))
            printf "start-up: a process that loads the plug-in, lists the devices and ends: %.2f CPU s (%.2f-%.2f)\n", MED, LO, HI
        print ""
        print "ours against the others (steady CPU, peak memory):"
        for (i = 1; i <= ns; i++)
            for (a = 1; a <= nw; a++) {
                o = wayorder[a]; if (o != "preview" && o != "plugin") continue
                for (b = 1; b <= nw; b++) {
                    p = wayorder[b]; if (p == "preview" || p == "plugin") continue
                    if (S[sizes[i] "|" p] > 0 && M[sizes[i] "|" p] > 0)
                        printf "  %-9s  %-7s / %-6s  CPU %5.2fx  memory %5.2fx\n", sizes[i], o, p,
                               S[sizes[i] "|" o] / S[sizes[i] "|" p], M[sizes[i] "|" o] / M[sizes[i] "|" p]
                }
                if (FLOOR[sizes[i]] > 0)
                    printf "  %-9s  %-7s / floor   CPU %5.2fx\n", sizes[i], o, S[sizes[i] "|" o] / FLOOR[sizes[i]]
            }
        # The goals, on the medians: without the preview at most 0.90 times
        # SimpleScreenRecorder and 1.25 times the floor; the preview adding at
        # most 0.010 CPU s/s and no more peak memory than that peer; every
        # recording of ours with 99.5 % of the frames asked for, none of them
        # a repeat (the scene moves in every frame).
        print ""
        held = 1; checked = 0; line = ""; short = ""
        for (i = 1; i <= ns; i++) {
            z = sizes[i]; ssr = S[z "|ssr"]; plugin = S[z "|plugin"]; preview = S[z "|preview"]
            short = short " " z ":"
            if (ssr > 0 && plugin > 0) {
                ok = plugin <= 0.90 * ssr; held = held && ok; checked++
                line = line sprintf("  %-9s  no preview: at most 0.90x SimpleScreenRecorder (%.2fx): %s\n", z, plugin / ssr, verdict(ok))
                short = short sprintf(" no preview/SSR %.2fx %s;", plugin / ssr, verdict(ok))
            }
            if (FLOOR[z] > 0 && plugin > 0) {
                ok = plugin <= 1.25 * FLOOR[z]; held = held && ok; checked++
                line = line sprintf("  %-9s  no preview: at most 1.25x the floor (%.2fx): %s\n", z, plugin / FLOOR[z], verdict(ok))
                short = short sprintf(" floor %.2fx %s;", plugin / FLOOR[z], verdict(ok))
            }
            if (plugin > 0 && preview > 0) {
                ok = preview - plugin <= 0.010; held = held && ok; checked++
                line = line sprintf("  %-9s  the preview adds at most 0.010 CPU s/s (%+.3f): %s\n", z, preview - plugin, verdict(ok))
                short = short sprintf(" preview %+.3f %s;", preview - plugin, verdict(ok))
            }
            if (M[z "|ssr"] > 0 && M[z "|preview"] > 0) {
                ok = M[z "|preview"] <= M[z "|ssr"]; held = held && ok; checked++
                line = line sprintf("  %-9s  with the preview, peak memory at most SimpleScreenRecorder'"'"'s (%.0f / %.0f MiB): %s\n", z, M[z "|preview"], M[z "|ssr"], verdict(ok))
                short = short sprintf(" memory %.0f/%.0f MiB %s;", M[z "|preview"], M[z "|ssr"], verdict(ok))
            }
            for (a = 1; a <= nw; a++) {
                o = wayorder[a]; if (o != "preview" && o != "plugin") continue
                k = z "|" o
                ok = FRAMESMIN[k] >= 0.995 * fps * seconds && REPEATS[k] == 0
                held = held && ok; checked++
                line = line sprintf("  %-9s  %s: at least 99.5%% of %d frames, none repeated (fewest %d, most repeats %d): %s\n", z, o, fps * seconds, FRAMESMIN[k], REPEATS[k], verdict(ok))
                short = short sprintf(" %s frames %s;", o, verdict(ok))
            }
        }
        printf "goals:\n%s", line
        if (!checked) print "goals: none could be checked (a recorder is missing)"
        else printf "goals: %s:%s\n", held ? "all hold" : "not all hold", short
    }' | tee "$out/summary.txt"
