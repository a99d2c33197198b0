#!/usr/bin/env bash
# AWire file-write benchmark: a 1 MiB Intel HEX image written and verified against the
# simulated target, next to the limit that 32 KiB chunks with two in flight allow over
# the loopback. The last line is "ratio awire write/limit: X", for scripts.
#
#   bash bench/run_awire.sh BUILDDIR
set -euo pipefail

build=${1:?usage: run_awire.sh BUILDDIR}
bin=$build/bench/bench_awire
if [ ! -x "$bin" ]; then
    echo "run_awire.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi
"$bin"
