#!/usr/bin/env bash
# Soak and scale against a tarvik-sim process on loopback, started here and stopped by
# its process id:
#   1. ROUNDS GetGlobals round trips on one client (default 1000000), client RSS after
#      the warm-up and at the end;
#   2. waves of CLIENTS clients at once (default 512, 100 requests each, 4 threads),
#      client RSS per connection and the simulator's RSS before, at peak and after.
#
#   bash bench/run_soak.sh BUILDDIR [ROUNDS] [CLIENTS]
set -euo pipefail

build=${1:?usage: run_soak.sh BUILDDIR [ROUNDS] [CLIENTS]}
rounds=${2:-1000000}
clients=${3:-512}
bench=$build/bench/bench_soak
sim=$build/sim/tarvik-sim
for bin in "$bench" "$sim"; do
    if [ ! -x "$bin" ]; then
        echo "run_soak.sh: $bin not built (configure with -DTARVIK_BUILD_BENCH=ON)" >&2
        exit 1
    fi
done

# Every client is a descriptor on both sides.
ulimit -n "$(ulimit -Hn)"

host=127.0.0.1
out=$(mktemp)
sim_pid=
stop_sim() {
    if [ -n "$sim_pid" ]; then
        kill -TERM "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
        sim_pid=
    fi
}
trap 'stop_sim; rm -f "$out"' EXIT

# Starts the simulator on a free port and sets $port from the line it prints.
start_sim() {
    "$sim" --host "$host" --devices spi --port 0 >"$out" &
    sim_pid=$!
    port=
    for _ in $(seq 100); do
        port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' "$out")
        [ -n "$port" ] && return 0
        kill -0 "$sim_pid" 2>/dev/null || break
        sleep 0.05
    done
    echo "run_soak.sh: tarvik-sim did not come up" >&2
    exit 1
}

echo "== soak: $rounds round trips on one client"
start_sim
"$bench" roundtrip "$host" "$port" "$rounds"
stop_sim

echo "== scale: $clients clients at once, two waves"
start_sim
"$bench" scale "$host" "$port" "$sim_pid" "$clients" 100 4 2
stop_sim
