#!/usr/bin/env bash
# One door to the benches, for people and for the screenreel script.
#
#   bench/run.sh record [options]   recording cost against other recorders (record-bench.sh)
#   bench/run.sh sync [options]     sound against picture over a long recording (sync-bench.sh)
#   bench/run.sh pacing [options]   tick rate of the Muxer loop (pacing-bench; default 600 s)
#
# Each sets the machine up and builds what it needs into build/ first
# (SCREENREEL_BUILD names another build tree).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/common.sh"

usage() {
    sed -n '2,9s/^# \{0,1\}//p' "$0"
    exit "${1:-0}"
}

[ $# -ge 1 ] || usage 2
which=$1
shift
case "$which" in
    record) exec "$here/record-bench.sh" "$@" ;;
    sync) exec "$here/sync-bench.sh" "$@" ;;
    pacing)
        ensure_base_packages
        build_targets pacing-bench
        echo "$(load_line) at the start"
        "$build/bench/pacing-bench" "$@"
        echo "$(load_line) at the end"
        ;;
    -h | --help | help) usage 0 ;;
    *) say "unknown bench: $which"; usage 2 ;;
esac
