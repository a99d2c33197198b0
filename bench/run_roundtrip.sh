#!/usr/bin/env bash
# Round-trip benchmark, once with the whole process pinned to CPU 0 and once unpinned:
# whether client and server threads share a CPU changes the round trip severalfold.
# The last line is the pinned ratio, for scripts: "ratio p50 library/raw: X.XX".
#
#   bash bench/run_roundtrip.sh BUILDDIR [ITERATIONS]
set -euo pipefail

build=${1:?usage: run_roundtrip.sh BUILDDIR [ITERATIONS]}
iterations=${2:-20000}
bin=$build/bench/bench_roundtrip
if [ ! -x "$bin" ]; then
    echo "run_roundtrip.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi

echo "== pinned to one CPU (taskset -c 0)"
pinned=$(taskset -c 0 "$bin" "$iterations")
grep -v '^ratio p50 library/raw:' <<<"$pinned"
ratio=$(grep '^ratio p50 library/raw:' <<<"$pinned")

echo "== unpinned"
unpinned=$("$bin" "$iterations")
grep -v '^ratio' <<<"$unpinned"
sed 's/^ratio /  unpinned ratio /' <<<"$(grep '^ratio' <<<"$unpinned")"

echo "$ratio"
