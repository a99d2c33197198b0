#!/usr/bin/env bash
# Runs every fuzz target of a build for a while, each on a scratch copy of its seeds.
#
#   bash tests/fuzz/run_fuzz.sh BUILD_DIR SECONDS
#
# The targets are the executables BUILD_DIR/tests/fuzz/fuzz_*, their seeds the files in
# tests/fuzz/corpus/<target>/. The seeds are only read: inputs that libFuzzer finds go to a
# scratch copy that is removed at the end. FUZZ_MAX_LEN (default 4096) caps the input size.
#
# Prints one summary line per target with its executions per second. A crash, leak, time-out
# or failed check fails the run; the input that caused it and the log stay in
# BUILD_DIR/fuzz-artifacts/<target>-<time>/, which the summary names. (Passing runs leave
# nothing behind.)
set -euo pipefail

usage="usage: run_fuzz.sh BUILD_DIR SECONDS"
build=${1:?$usage}
seconds=${2:?$usage}
max_len=${FUZZ_MAX_LEN:-4096}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)

targets=()
for exe in "$build"/tests/fuzz/fuzz_*; do
    [ -f "$exe" ] && [ -x "$exe" ] && targets+=("$exe")
done
if [ ${#targets[@]} -eq 0 ]; then
    echo "run_fuzz.sh: no fuzz targets in $build/tests/fuzz; configure with -DTARVIK_BUILD_FUZZ=ON" >&2
    exit 1
fi

# Scratch space in memory where there is some: the targets write every input to a file. It
# also takes the scratch files of targets that crash before they can remove them.
scratch=${TMPDIR:-/tmp}
[ -d /dev/shm ] && [ -w /dev/shm ] && scratch=/dev/shm
work=$(mktemp -d "$scratch/tarvik_fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tmp"

# One field of libFuzzer's final statistics ("stat::NAME: VALUE"), or "?".
stat() {
    local value
    value=$(awk -v key="stat::$1:" '$1 == key { v = $2 } END { print v }' "$2")
    echo "${value:-?}"
}

failed=0
summary=()
for exe in "${targets[@]}"; do
    name=$(basename "$exe")
    corpus="$work/corpus/$name"
    mkdir -p "$corpus"
    if [ -d "$here/corpus/$name" ]; then
        find "$here/corpus/$name" -maxdepth 1 -type f -exec cp {} "$corpus/" \;
    fi
    artifacts="$build/fuzz-artifacts/$name-$(date +%Y%m%d-%H%M%S)"
    mkdir -p "$artifacts"
    log="$artifacts/fuzz.log"
    echo "fuzzing $name for $seconds s ($(find "$corpus" -type f | wc -l) seeds, max_len $max_len)"
    # Standard output of the target is closed (-close_fd_mask=1): the library prints messages
    # about bad records there. libFuzzer and the sanitizers report on standard error.
    status=0
    TMPDIR="$work/tmp" \
    ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0} \
    UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
        "$exe" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -close_fd_mask=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1 ||
        status=$?
    figures="$(stat number_of_executed_units "$log") runs, $(stat average_exec_per_sec "$log") exec/s,"
    figures="$figures $(stat new_units_added "$log") new inputs, peak RSS $(stat peak_rss_mb "$log") MB"
    if [ "$status" -eq 0 ]; then
        summary+=("$name: ok, $seconds s, $figures")
        rm -rf "$artifacts"
    else
        failed=1
        kept=$(find "$artifacts" -type f ! -name fuzz.log | sort | tr '\n' ' ')
        summary+=("$name: FAILED (exit $status), $figures; input kept: ${kept:-none}; log: $log")
        echo "--- end of $log:"
        tail -n 40 "$log"
    fi
done
rmdir "$build/fuzz-artifacts" 2>/dev/null || true

echo "fuzz summary:"
printf '  %s\n' "${summary[@]}"
exit "$failed"
