#!/usr/bin/env bash
# AWire file-write benchmark: a 1 MiB image written and verified against the simulated
# target, taken in turn with the limit of the same writes by a raw client (32 KiB chunks,
# two in flight), five pairs after a warm-up pair; the ratio is the median of the pairs.
# Once with the whole process pinned to CPU 0 and once unpinned: whether the client's
# threads and the simulator's wake each other on one CPU or across two changes the
# hand-over between them severalfold, and unpinned the ratio swings with the placement.
# The last line is the pinned ratio, for scripts: "ratio awire write/limit: X".
#
#   bash bench/run_awire.sh BUILDDIR [RUNS]
set -euo pipefail

build=${1:?usage: run_awire.sh BUILDDIR [RUNS]}
runs=${2:-5}
bin=$build/bench/bench_awire
if [ ! -x "$bin" ]; then
    echo "run_awire.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
    exit 1
fi

echo "== pinned to one CPU (taskset -c 0)"
pinned=$(taskset -c 0 "$bin" "$runs")
grep -v '^ratio awire write/limit' <<<"$pinned"
ratio=$(grep '^ratio awire write/limit:' <<<"$pinned")

echo "== unpinned"
unpinned=$("$bin" "$runs")
grep -v '^ratio awire write/limit' <<<"$unpinned"
sed 's/^ratio awire write\/limit:/  unpinned ratio awire write\/limit:/' <<<"$(grep '^ratio awire write/limit' <<<"$unpinned")"

echo "$ratio"
