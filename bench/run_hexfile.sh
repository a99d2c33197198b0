#!/usr/bin/env bash
# Load speed of 16 MiB Intel HEX and S-record images (16-byte records) in tarvik, against
# SRecord's srec_cat converting the same files to binary on the same machine in the same run;
# then the memory one load takes for a sparse and a dense Intel HEX file of 1.5 MiB each.
#
#   bash bench/run_hexfile.sh BUILD_DIR
#
# Ends with the two lines
#   ratio intel srec_cat/tarvik: X.XX
#   ratio srec srec_cat/tarvik: X.XX
# (time of srec_cat divided by time of tarvik; higher is better for tarvik).
set -euo pipefail

build=${1:?usage: run_hexfile.sh BUILD_DIR}
bench="$build/bench/bench_hexfile"
runs=${HEXFILE_BENCH_RUNS:-5}
mib=16

if [ ! -x "$bench" ]; then
    echo "run_hexfile.sh: $bench not found; build with -DTARVIK_BUILD_BENCH=ON" >&2
    exit 1
fi

if ! command -v srec_cat >/dev/null 2>&1; then
    echo "installing srecord"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq srecord >/dev/null
fi

work=$(mktemp -d /tmp/tarvik_hexbench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# Best wall time of $runs runs of a command, in seconds.
best_time() {
    local best="" start end t
    for _ in $(seq "$runs"); do
        start=$(date +%s.%N)
        # srec_cat warns about S-record files without header and start records.
        if ! "$@" >/dev/null 2>>"$work/srec_cat.log"; then
            return 1
        fi
        end=$(date +%s.%N)
        t=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f", b - a }')
        if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then
            best=$t
        fi
    done
    echo "$best"
}

echo "memory image load: $mib MiB images at address 0, 16-byte records, best of $runs runs"
"$bench" gen intel "$work/image.hex" "$mib"
"$bench" gen srec "$work/image.s28" "$mib"

declare -A ratio
for format in intel srec; do
    if [ "$format" = intel ]; then
        file="$work/image.hex"
        srec_format=-intel
    else
        file="$work/image.s28"
        srec_format=-motorola
    fi
    srec_s=$(best_time srec_cat "$file" "$srec_format" -o "$work/out.bin" -binary)
    tarvik_s=$("$bench" load "$file" "$runs" | awk '$1 == "seconds" { print $2 }')
    if [ -z "$srec_s" ] || [ -z "$tarvik_s" ]; then
        echo "run_hexfile.sh: a $format run failed" >&2
        cat "$work/srec_cat.log" >&2
        exit 1
    fi
    awk -v f="$format" -v m="$mib" -v s="$srec_s" -v t="$tarvik_s" 'BEGIN {
        printf "%-5s srec_cat: %.4f s, %.1f MiB/s\n", f, s, m / s
        printf "%-5s tarvik:   %.4f s, %.1f MiB/s\n", f, t, m / t
    }'
    ratio[$format]=$(awk -v s="$srec_s" -v t="$tarvik_s" 'BEGIN { printf "%.2f", s / t }')
done

echo "memory of one load: 1.5 MiB Intel HEX files, sparse (one-byte records, each on a new 4 KiB page)"
echo "and dense (16-byte records back to back), each loaded in a fresh process"
for kind in sparse dense; do
    "$bench" gen "$kind" "$work/$kind.hex" 1536
    "$bench" memory "$work/$kind.hex" | grep -v '^peak_kib'
done

echo "ratio intel srec_cat/tarvik: ${ratio[intel]}"
echo "ratio srec srec_cat/tarvik: ${ratio[srec]}"
