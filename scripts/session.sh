#!/usr/bin/env bash
# Runs a command inside a private desktop session: an Xvfb display and/or a
# PulseAudio daemon with a null sink "reel" carrying a 440 Hz tone. Stops
# exactly the processes it started, whatever the command does.
#
#   session.sh [--display] [--sound] [--screen WxHxD] -- command [args...]
set -u

want_display=0
want_sound=0
screen=1920x1080x24
while [ $# -gt 0 ]; do
    case "$1" in
        --display) want_display=1 ;;
        --sound) want_sound=1 ;;
        --screen) screen=$2; shift ;;
        --) shift; break ;;
        *) echo "session.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done

work=$(mktemp -d "${TMPDIR:-/tmp}/screenreel-session.XXXXXX")
# Qt warns on every start without one (root on a bare machine has none).
[ -n "${XDG_RUNTIME_DIR:-}" ] || export XDG_RUNTIME_DIR="$work"
xvfb_pid=""
pulse_pid=""

cleanup() {
    for pid in $pulse_pid $xvfb_pid; do
        kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT
# Until the command runs, a signal just ends the session; from then on it is
# passed to the command, which may need the display and the sound server to
# finish (a recorder writing its file's end), and the session ends with it.
child=""
on_signal() {
    if [ -n "$child" ]; then
        kill -s "$1" "$child" 2>/dev/null
    else
        exit 130
    fi
}
trap 'on_signal INT' INT
trap 'on_signal TERM' TERM

if [ $want_display = 1 ]; then
    exec 3<> "$work/displayfd"
    # Own sessions for the servers: a Ctrl+C at the terminal is for the
    # command, which may still need them to finish.
    setsid Xvfb -displayfd 3 -screen 0 "$screen" -nolisten tcp -noreset >"$work/xvfb.log" 2>&1 &
    xvfb_pid=$!
    display=""
    for _ in $(seq 100); do
        display=$(head -n1 "$work/displayfd" 2>/dev/null)
        [ -n "$display" ] && break
        sleep 0.05
    done
    exec 3>&-
    if [ -z "$display" ]; then
        echo "session.sh: Xvfb did not start" >&2
        cat "$work/xvfb.log" >&2
        exit 1
    fi
    export DISPLAY=":$display"
    export QT_QPA_PLATFORM=xcb
fi

if [ $want_sound = 1 ]; then
    mkdir -p "$work/pulse"
    socket="$work/pulse/native"
    HOME="$work" XDG_RUNTIME_DIR="$work/pulse" PULSE_RUNTIME_PATH="$work/pulse" \
        setsid pulseaudio -n --daemonize=no --exit-idle-time=-1 --disallow-exit --log-target=stderr \
        --use-pid-file=no \
        -L "module-native-protocol-unix socket=$socket auth-anonymous=1" \
        -L "module-null-sink sink_name=reel rate=48000 channels=2" \
        -L "module-sine sink=reel frequency=440" >"$work/pulse.log" 2>&1 &
    pulse_pid=$!
    export PULSE_SERVER="unix:$socket"
    ready=0
    for _ in $(seq 100); do
        if pactl info >/dev/null 2>&1; then ready=1; break; fi
        sleep 0.05
    done
    if [ $ready = 0 ]; then
        echo "session.sh: PulseAudio did not start" >&2
        cat "$work/pulse.log" >&2
        exit 1
    fi
    pactl set-default-source reel.monitor >/dev/null 2>&1
fi

"$@" <&0 &
child=$!
# wait returns early when a trapped signal arrives; the command goes on.
wait "$child"
status=$?
while kill -0 "$child" 2>/dev/null; do
    wait "$child"
    status=$?
done
exit $status
