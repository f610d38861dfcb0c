#!/usr/bin/env bash
# The Debian package as a host developer meets it: what it installs and what
# it depends on, then the host of README.md, built from README's own text
# with find_package(ScreenReel) against the unpacked package, and run.
#
#   package-test.sh BUILD_DIR README
set -euo pipefail
build=$1
readme=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/screenreel-package.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Straight from the build tree's install rules, into a directory of its own.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
deb=$(echo "$work"/cpack/*.deb)
[ -f "$deb" ] || fail "no package made"

contents=$(dpkg-deb -c "$deb" | awk '{ print $6 }')
for path in usr/bin/screenreel-record usr/lib/libModuleHub.so usr/lib/screenreel/libScreenReel.so \
    usr/include/screenreel/interface/ScreenReel.h usr/include/screenreel/interface/OpaqueUI.h \
    usr/include/screenreel/interface/ScreenReelVersion.h usr/lib/cmake/ScreenReel/ScreenReelConfig.cmake; do
    grep -qx "./$path" <<<"$contents" || fail "the package lacks /$path"
done
depends=$(dpkg-deb -f "$deb" Depends)
for package in libavformat libavcodec libavdevice libavutil libswresample libyuv \
    libqt5widgets5 libqt5multimedia5 libqt5multimedia5-plugins libpulse0 libpci3; do
    grep -qE "(^|, )$package[0-9]*( |,|$)" <<<"$depends" || fail "the package does not depend on $package: $depends"
done

# README's first cmake and first cpp block are the host project.
dpkg-deb -x "$deb" "$work/root"
mkdir "$work/host"
block() { awk -v fence="\`\`\`$1" '$0 == fence { on = 1; next } on && $0 == "```" { exit } on' "$readme"; }
block cmake >"$work/host/CMakeLists.txt"
block cpp >"$work/host/main.cpp"
cmake -S "$work/host" -B "$work/host/build" -DCMAKE_PREFIX_PATH="$work/root/usr" >"$work/host.log" 2>&1 &&
    cmake --build "$work/host/build" >>"$work/host.log" 2>&1 ||
    { cat "$work/host.log"; fail "README's host does not build against the package"; }

# It records 3 s into clip.mp4 in its working directory.
cd "$work"
"$work/host/build/myhost" >"$work/run.log" 2>&1 ||
    { cat "$work/run.log"; fail "README's host failed"; }
states=$(grep -E '^(started|stopped)$' "$work/run.log" | tr '\n' ' ')
[ "$states" = "started stopped stopped " ] || { cat "$work/run.log"; fail "states: $states"; }
streams=$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 clip.mp4 | tr '\n' ' ')
[ "$streams" = "h264 aac " ] || fail "clip.mp4 holds: $streams"
echo "PASS: the package, and README's host built against it"
