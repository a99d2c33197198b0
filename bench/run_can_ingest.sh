#!/usr/bin/env bash
# CAN ingest benchmark: frames per second received, parsed and queued (fetched by a
# consumer thread), handed to a callback, and read and cut alone; then the round trip of
# requests issued during a full-speed flood. The last line is, for scripts:
# "ratio ingest queued/raw: X".
#
#   bash bench/run_can_ingest.sh BUILDDIR [FRAMES] [REQUESTS]
set -euo pipefail

build=${1:?usage: run_can_ingest.sh BUILDDIR [FRAMES] [REQUESTS]}
frames=${2:-4000000}
requests=${3:-500}
bin=$build/bench/bench_can_ingest
if [ ! -x "$bin" ]; then
    echo "run_can_ingest.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi

"$bin" "$frames" "$requests"
