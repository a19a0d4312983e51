#!/bin/sh
# Makes the streams that the tests of the element and of the faults play: make_materials.sh DIRECTORY KEPT
# What this script makes is made once and kept in KEPT for all build directories, under the sum of the script itself.
#
# The options of an encoder are several words.
# shellcheck disable=SC2086
set -eu
directory=$1
kept=$2/$(sha256sum <"$0" | cut -c1-16)

if [ -d "$kept" ]; then
    exec cp "$kept"/* "$directory"
fi
mkdir -p "${kept%/*}"
made=$(mktemp -d "$kept.XXXXXX")
trap 'rm -rf "$made"' EXIT
cd "$made"

video() { # name, size, rate, encoder options
    out=$1 size=$2 rate=$3
    shift 3
    ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=$size:rate=$rate" -t 3 -pix_fmt yuv420p "$@" "$out"
}
audio() { # name, sampling rate, channels, encoder options
    out=$1 rate=$2 channels=$3
    shift 3
    ffmpeg -nostdin -v error -y -f lavfi -i "sine=sample_rate=$rate" -t 2 -ac "$channels" "$@" "$out"
}
x264="-c:v libx264 -preset ultrafast -tune zerolatency"

video progressive.h264 636x358 25 $x264 -g 25
video interlaced.h264 720x576 25 -c:v libx264 -flags +ildct+ilme -x264-params tff=1:open-gop=1:keyint=10:bframes=2:ref=3:log-level=error
video fake.h264 320x240 25 -c:v libx264 -x264-params fake-interlaced=1:keyint=25:log-level=error
video faketold.h264 320x240 25 -c:v libx264 -x264-params fake-interlaced=1:pic-struct=1:keyint=25:log-level=error
video intra.h264 320x240 30000/1001 -c:v libx264 -x264-params keyint=1:log-level=error
video refresh.h264 320x240 25 -c:v libx264 -x264-params intra-refresh=1:keyint=20:log-level=error
video progressive.h265 634x358 30000/1001 -c:v libx265 -preset ultrafast -x265-params keyint=20:log-level=none
video opengop.h265 320x240 50 -c:v libx265 -preset ultrafast -x265-params keyint=20:open-gop=1:bframes=3:log-level=none
# A stream that changes its size.
cat progressive.h264 intra.h264 > resized.h264

audio tone.aac 48000 2 -c:a aac
audio low.aac 22050 1 -c:a aac
audio tone.mp3 44100 2 -c:a libmp3lame -b:a 128k
audio low.mp3 22050 1 -c:a libmp3lame -b:a 32k
audio tone.mp2 48000 2 -c:a mp2 -b:a 128k
audio tone.ac3 48000 6 -c:a ac3 -b:a 192k
audio tone.eac3 48000 2 -c:a eac3 -b:a 128k
audio tone.opus 48000 2 -c:a libopus -b:a 64k
audio tone.ogg 44100 2 -c:a libvorbis

# What a sender sends: both media, with a key frame every half second.
ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=sample_rate=48000 -t 4 \
    $x264 -g 12 -pix_fmt yuv420p -c:a aac -ac 2 -f mpegts stream.ts

# Pictures that are shown in another order than they are decoded.
ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=sample_rate=48000 -t 4 \
    -c:v libx264 -preset ultrafast -bf 2 -g 25 -pix_fmt yuv420p -c:a aac -ac 2 -f mpegts reordered.ts

cp ./* "$directory"
# Whole or not at all, also when another build directory made the same meanwhile.
mv -T "$made" "$kept" 2>/dev/null || true
