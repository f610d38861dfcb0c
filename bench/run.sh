#!/usr/bin/env bash
# One door to the benches, for people and for the screenreel script.
#
#   bench/run.sh record [options]   recording cost against other recorders (record-bench.sh)
#   bench/run.sh sync [options]     sound against picture over a long recording (sync-bench.sh)
#   bench/run.sh pacing [options]   tick rate of the Muxer loop (pacing-bench; default 600 s)
#   bench/run.sh longrun [SECONDS]  memory, sound lag and output of a long recording (default 600 s)
#   bench/run.sh stress [COUNT]     start/stop stress through the plug-in (default 200)
#   bench/run.sh all [--long]       waits for a quiet machine, then record, sync 60 s, pacing
#                                   600 s (and sync 600 s with --long), into build/bench-out/all.log
#
# Each sets the machine up and builds what it needs into build/ first
# (SCREENREEL_BUILD names another build tree).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/common.sh"

usage() {
    sed -n '2,13s/^# \{0,1\}//p' "$0"
    exit "${1:-0}"
}

[ $# -ge 1 ] || usage 2
which=$1
shift
case "$which" in
    record) exec "$here/record-bench.sh" "$@" ;;
    sync) exec "$here/sync-bench.sh" "$@" ;;
    longrun) exec "$here/longrun-bench.sh" "$@" ;;
    stress) exec "$here/stress-bench.sh" "$@" ;;
    pacing)
        ensure_base_packages
        build_targets pacing-bench
        echo "$(load_line) at the start"
        "$build/bench/pacing-bench" "$@"
        echo "$(load_line) at the end"
        ;;
    all)
        ensure_base_packages simplescreenrecorder
        build_targets ScreenReel screenreel-record screenreel-scene sync-analyse pacing-bench
        mkdir -p "$build/bench-out"
        # Other work on the machine shows in every figure: wait for it to end.
        wait_for_quiet 1 25
        # A bench that misses its limits says so and the next one still runs.
        {
            "$here/record-bench.sh" || true
            "$here/sync-bench.sh" 60 || true
            "$0" pacing --seconds 600 || true
            if [ "${1:-}" = --long ]; then
                "$here/sync-bench.sh" 600 || true
            fi
        } 2>&1 | grep --line-buffered -v XDG_RUNTIME_DIR | tee "$build/bench-out/all.log"
        ;;
    -h | --help | help) usage 0 ;;
    *) say "unknown bench: $which"; usage 2 ;;
esac
