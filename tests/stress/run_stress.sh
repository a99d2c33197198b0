#!/usr/bin/env bash
# Runs the suite of one or more build directories RUNS times each while two busy loops
# keep both cores loaded, then prints how many runs failed and which tests failed how
# often. A test that fails here fails some day in CI, where builds share the cores.
#
#   tests/stress/run_stress.sh RUNS LABEL=BUILD_DIR [LABEL=BUILD_DIR ...]
#
# Extra ctest arguments for one pass (e.g. -LE script) come from STRESS_ARGS_<LABEL>,
# its environment (sanitizer options) from STRESS_ENV_<LABEL>. Exits 1 when any run failed.
set -u

runs=${1:?usage: run_stress.sh RUNS LABEL=BUILD_DIR...}
shift
jobs=$(nproc 2>/dev/null || echo 2)
log_dir=$(mktemp -d "${TMPDIR:-/tmp}/tarvik-stress.XXXXXX")

# Two busy loops, one a core, for as long as the runs last; killed by process id.
busy=()
stop_busy() {
    for pid in "${busy[@]}"; do kill "$pid" 2>/dev/null; done
    wait "${busy[@]}" 2>/dev/null
}
trap 'stop_busy; exit 130' INT TERM
for _ in 1 2; do
    (while :; do :; done) &
    busy+=($!)
done

status=0
summary=()
for pass in "$@"; do
    label=${pass%%=*}
    dir=${pass#*=}
    env_var="STRESS_ENV_${label}"
    args_var="STRESS_ARGS_${label}"
    read -r -a pass_env <<< "${!env_var:-}"
    read -r -a pass_args <<< "${!args_var:-}"
    failed_runs=0
    declare -A failures=()
    start=$(date +%s)
    for ((run = 1; run <= runs; ++run)); do
        out="$log_dir/$label-$run.log"
        env "${pass_env[@]}" ctest --test-dir "$dir" -j "$jobs" --output-on-failure "${pass_args[@]}" \
            > "$out" 2>&1
        rc=$?
        line=$(grep -E '^[0-9]+% tests passed' "$out" | tail -1)
        echo "stress: $label run $run/$runs: ${line:-ctest exit $rc}"
        if [ "$rc" -ne 0 ]; then
            failed_runs=$((failed_runs + 1))
            # ctest's closing list: "\t 42 - Suite.Name (Failed)".
            while read -r name; do
                failures[$name]=$((${failures[$name]:-0} + 1))
            done < <(sed -n 's/^[[:space:]]*[0-9]\+ - \(.*\) (\(Failed\|Timeout\|SEGFAULT\|Subprocess aborted\|Exception\|.*\))$/\1/p' "$out")
            echo "stress: kept $out"
        else
            rm -f "$out"
        fi
    done
    seconds=$(($(date +%s) - start))
    summary+=("stress: $label: $runs runs in ${seconds} s, $failed_runs failed")
    for name in "${!failures[@]}"; do
        summary+=("stress: $label:   ${failures[$name]}x $name")
    done
    [ "$failed_runs" -eq 0 ] || status=1
    unset failures
done

stop_busy
trap - INT TERM
printf '%s\n' "${summary[@]}"
[ "$status" -eq 0 ] && rmdir "$log_dir" 2>/dev/null
exit "$status"
