#!/bin/sh
# Records video and audio of a shared buffer into a Matroska file, until Ctrl-C or the end of the host:
#
#     ./record.sh camera camera.mkv
#
# The file begins with the newest key frame. With start=-10s behind the buffer's name it would begin ten seconds ago.
set -eu
[ $# -eq 2 ] || { echo "usage: $0 NAME FILE.mkv" >&2 && exit 2; }
tracks=$(gst-source-read tracks "$1")

# parser video|audio: the element that hands the codec of that track to a muxer; none when the source has no such track.
parser() {
    codec=$(echo "$tracks" | awk -v kind="$1" '$1 == "0.0" && $2 == kind { print $3 }')
    case $codec in
    H264 | H265 | OPUS | AC3) echo "$codec" | tr '[:upper:]' '[:lower:]' | sed 's/$/parse/' ;;
    EAC3) echo ac3parse ;;
    AAC | MP4A-LATM) echo aacparse ;;
    MP1 | MP2 | MP3 | MPA) echo mpegaudioparse ;;
    PCMA | PCMU | VORBIS) echo identity ;;
    '' | absent) ;;
    expected) echo "$0: nothing has come of the $1 yet" >&2 && exit 1 ;;
    *) echo "$0: no parser for $1 of codec $codec" >&2 && exit 1 ;;
    esac
}

video=$(parser video)
audio=$(parser audio)
[ -n "$video$audio" ] || { echo "$0: $1 carries nothing yet" >&2 && exit 1; }
# -e: at Ctrl-C the muxer completes the file.
exec gst-launch-1.0 -e shbsrc name=source buffer="$1" matroskamux name=muxer ! filesink location="$2" \
    ${video:+source.video ! queue ! $video ! muxer.} \
    ${audio:+source.audio ! queue ! $audio ! muxer.}
