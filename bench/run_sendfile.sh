#!/usr/bin/env bash
# Upload benchmark: SendFile of a 64 MiB file against the simulated test-system unit next
# to a raw stop-and-wait reference, and the peak RSS of uploads of 16 and 256 MiB.
# The last line is "ratio sendfile/raw: X", for scripts.
#
#   bash bench/run_sendfile.sh BUILDDIR
set -euo pipefail

build=${1:?usage: run_sendfile.sh BUILDDIR}
bin=$build/bench/bench_sendfile
if [ ! -x "$bin" ]; then
    echo "run_sendfile.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi
"$bin"
