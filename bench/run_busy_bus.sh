#!/usr/bin/env bash
# Round trip of a CAN request while the simulated bus carries RATE frames a second (default
# 30000) to the same connection, against the same request on an idle bus. The last line is
# "busy round trip p99 / idle p99: X", for scripts.
#
#   bash bench/run_busy_bus.sh BUILDDIR [RATE] [REQUESTS]
set -euo pipefail

build=${1:?usage: run_busy_bus.sh BUILDDIR [RATE] [REQUESTS]}
rate=${2:-30000}
requests=${3:-10000}
bin=$build/bench/bench_busy_bus
if [ ! -x "$bin" ]; then
    echo "run_busy_bus.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi

"$bin" "$rate" "$requests"
