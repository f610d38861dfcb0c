# Shared by the bench scripts: machine set-up, build, the private session,
# and measuring a command. Sourced, not run.

bench_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# The build tree the benches use and build into; another can be named.
build=${SCREENREEL_BUILD:-$bench_root/build}

say() { echo "bench: $*" >&2; }

# Installs the Debian packages that are missing, without questions.
ensure_packages() {
    local missing=() p
    for p in "$@"; do
        if ! dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    say "installing ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -ne 0 ] && sudo=(sudo)
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        -o Dpkg::Use-Pty=0 --no-install-recommends "${missing[@]}" >/dev/null
}

# What every bench needs: the project's own build dependencies, the recorder
# and scene, and the tools that measure.
ensure_base_packages() {
    ensure_packages cmake g++ make pkg-config \
        qtbase5-dev qtmultimedia5-dev libqt5multimedia5-plugins \
        libavformat-dev libavcodec-dev libavdevice-dev libavutil-dev libswscale-dev libswresample-dev \
        libyuv-dev libpci-dev ffmpeg xvfb x11-utils fonts-dejavu-core pulseaudio pulseaudio-utils \
        time "$@"
}

# Builds only what the benches run: the whole test suite is not needed.
build_targets() {
    cmake -S "$bench_root" -B "$build" >/dev/null
    cmake --build "$build" -j "$(nproc)" --target "$@" -- --no-print-directory >/dev/null
}

# Re-runs the calling script inside a private session unless it is in one
# already: bench figures must not depend on someone's desktop.
#   ensure_session <session.sh options> -- "$0" "$@"
ensure_session() {
    [ -n "${SCREENREEL_BENCH_SESSION:-}" ] && return 0
    local options=()
    while [ "$1" != -- ]; do options+=("$1"); shift; done
    shift
    export SCREENREEL_BENCH_SESSION=1
    exec "$bench_root/scripts/session.sh" "${options[@]}" -- "$@"
}

# Runs a command under GNU time; its figures go to FILE as
# "user system maxrss_kib wall".
# GNU time puts a line before them when the command failed.
timed() {
    local file=$1
    shift
    /usr/bin/time -f '%U %S %M %e' -o "$file" "$@"
}

# "frames distinct duration" of the first video stream: frames counted by
# decoding, distinct ones those that differ from the frame before (a
# recorder that repeats a picture encodes a frame that decodes to the same
# bytes), duration the container's.
probe_video() {
    local frames duration
    frames=$(ffmpeg -nostdin -v error -i "$1" -map 0:v:0 -f framemd5 - 2>/dev/null |
        awk -F',' '!/^#/ { n++; if ($NF != last) d++; last = $NF } END { print n + 0, d + 0 }')
    duration=$(ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 "$1" 2>/dev/null)
    echo "$frames ${duration:-0}"
}

# How a timed command ended: "ok", "status N" or "signal N".
ending() {
    local how
    how=$(grep -o -m1 'status [0-9]*\|signal [0-9]*' "$1" 2>/dev/null || true)
    echo "${how:-ok}"
}

load_line() {
    echo "load average $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
}

# Waits up to MINUTES for the one-minute load to drop below LIMIT.
wait_for_quiet() {
    local limit=$1 minutes=$2 i load
    for ((i = 0; i <= minutes; i++)); do
        load=$(cut -d' ' -f1 /proc/loadavg)
        if awk -v l="$load" -v m="$limit" 'BEGIN { exit !(l < m) }'; then
            return 0
        fi
        [ "$i" -eq "$minutes" ] && break
        say "load $load, waiting for it to drop below $limit ($i/$minutes min)"
        sleep 60
    done
    say "load still $load: measuring anyway"
}

# Starts the moving scene and waits until it is on the screen.
start_scene() {
    "$build/host/screenreel-scene" "$@" &
    scene_pid=$!
    local _
    for _ in $(seq 50); do
        xwininfo -root -tree 2>/dev/null | grep -q '"ScreenReel scene"' && break
        sleep 0.1
    done
    sleep 0.5
}

stop_scene() {
    [ -n "${scene_pid:-}" ] || return 0
    kill "$scene_pid" 2>/dev/null || true
    wait "$scene_pid" 2>/dev/null || true
    scene_pid=""
}
