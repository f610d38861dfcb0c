#!/usr/bin/env bash
# Runs a command inside a private desktop session: an Xvfb display and/or a
# sound server with a null sink "reel" carrying a 440 Hz tone (its monitor
# "reel.monitor" the default source, PULSE_SERVER exported). Stops exactly the
# processes it started, whatever the command does.
#
#   session.sh [--display] [--sound [pulse|pipewire]] [--screen WxHxD] -- command [args...]
#
# The sound server is PulseAudio unless named. "pipewire" runs pipewire,
# wireplumber and pipewire-pulse on a private D-Bus session bus and a private
# runtime dir (DBUS_SESSION_BUS_ADDRESS and XDG_RUNTIME_DIR exported), with
# wireplumber's monitors of sound cards, cameras and Bluetooth off.
set -u

want_display=0
sound=""
screen=1920x1080x24
while [ $# -gt 0 ]; do
    case "$1" in
        --display) want_display=1 ;;
        --sound)
            sound=pulse
            case "${2:-}" in pulse|pipewire) sound=$2; shift ;; esac ;;
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
bus_pid=""
pipewire_pid=""
wireplumber_pid=""
pipewire_pulse_pid=""
tone_pid=""

cleanup() {
    for pid in $tone_pid $pipewire_pulse_pid $wireplumber_pid $pipewire_pid $bus_pid \
               $pulse_pid $xvfb_pid; do
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

# Waits up to 5 s for a command to succeed.
wait_for() {
    local _
    for _ in $(seq 100); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    return 1
}

# Says why the session cannot start, with the logs that tell more.
fail() {
    echo "session.sh: $1" >&2
    shift
    local log
    for log in "$@"; do cat "$log" >&2; done
    exit 1
}

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
    [ -n "$display" ] || fail "Xvfb did not start" "$work/xvfb.log"
    export DISPLAY=":$display"
    export QT_QPA_PLATFORM=xcb
fi

# A private session bus; wireplumber does not run without one.
start_bus() {
    mkdir -p "$work/services"
    cat >"$work/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$work/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
    setsid dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile >"$work/bus.log" 2>&1 &
    bus_pid=$!
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$work/bus"
    wait_for test -S "$work/bus" || fail "dbus-daemon did not start" "$work/bus.log"
}

# pipewire and wireplumber, and pipewire-pulse when $1 is "pulse". What they
# keep goes under $work.
start_pipewire() {
    local run="$work/run" config="$work/config"
    mkdir -p -m 700 "$run"
    mkdir -p "$config/wireplumber/main.lua.d" "$config/wireplumber/bluetooth.lua.d"
    printf '%s\n' "alsa_monitor.enabled = false" "v4l2_monitor.enabled = false" \
        "libcamera_monitor.enabled = false" >"$config/wireplumber/main.lua.d/51-session.lua"
    echo "bluez_monitor.enabled = false" >"$config/wireplumber/bluetooth.lua.d/51-session.lua"
    export XDG_RUNTIME_DIR="$run"
    local env=(env HOME="$work" XDG_CONFIG_HOME="$config" XDG_STATE_HOME="$work/state")
    setsid "${env[@]}" pipewire >"$work/pipewire.log" 2>&1 &
    pipewire_pid=$!
    wait_for test -S "$run/pipewire-0" || fail "pipewire did not start" "$work/pipewire.log"
    setsid "${env[@]}" wireplumber >"$work/wireplumber.log" 2>&1 &
    wireplumber_pid=$!
    [ "${1:-}" = pulse ] || return 0
    setsid "${env[@]}" pipewire-pulse >"$work/pipewire-pulse.log" 2>&1 &
    pipewire_pulse_pid=$!
    export PULSE_SERVER="unix:$run/pulse/native"
    wait_for pactl info || fail "pipewire-pulse did not start" "$work/pipewire-pulse.log"
}

# The sink input of the tone plays into "reel".
tone_linked() {
    local sink
    sink=$(pactl list short sinks | awk '$2 == "reel" { print $1 }')
    [ -n "$sink" ] &&
        pactl list short sink-inputs | awk -v s="$sink" '$2 == s { found = 1 } END { exit !found }'
}

if [ "$sound" = pulse ]; then
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
    wait_for pactl info || fail "PulseAudio did not start" "$work/pulse.log"
    pactl set-default-source reel.monitor >/dev/null 2>&1
elif [ "$sound" = pipewire ]; then
    start_bus
    start_pipewire pulse
    pactl load-module module-null-sink sink_name=reel rate=48000 channels=2 >/dev/null ||
        fail "pipewire-pulse made no null sink" "$work/pipewire-pulse.log"
    # pipewire-pulse has no module-sine: a generated tone played into the
    # sink, paced by the sink itself (the pulse output blocks while the
    # server's buffer is full), so it neither drifts nor pauses.
    setsid ffmpeg -nostdin -loglevel error -f lavfi -i sine=frequency=440:sample_rate=48000 \
        -ac 2 -f pulse -device reel reel-tone >"$work/tone.log" 2>&1 &
    tone_pid=$!
    # wireplumber links the tone to the sink; until then the sink is silent.
    wait_for tone_linked || fail "the tone does not reach the sink" "$work/tone.log" \
        "$work/wireplumber.log"
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
