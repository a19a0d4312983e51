#!/bin/sh
# Runs a test program under GStreamer's tracer of live objects and fails when it reports any at the end, when it is not in
# place, or when the program itself fails. The waits for the clock are left out: they have their run elsewhere.
set -eu
program=$1
report=$(mktemp)
trap 'rm -f "$report"' EXIT

GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 GST_DEBUG_FILE=$report GST_DEBUG_NO_COLOR=1 \
    "$program" --gtest_brief=1 --gtest_filter='-*Real*'

# The tracer announces the form of its records before anything else.
if ! grep -q 'build_format.*object-alive' "$report"; then
    echo 'the tracer of live objects is not in place'
    exit 1
fi
if grep 'object-alive' "$report" | grep -v 'build_format'; then
    echo 'the objects above outlived their source'
    exit 1
fi
