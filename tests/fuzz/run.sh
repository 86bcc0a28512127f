#!/usr/bin/env bash
# Runs the fuzz targets of a ZMAUTH_FUZZ build (tools/run.sh fuzz builds it):
#   bash tests/fuzz/run.sh BUILD_DIR [SECONDS] [--jobs N] [--seed N] [TARGET...]
# Each target first replays its regression inputs (regressions/TARGET), then
# fuzzes for SECONDS (default 60) from its seeds (corpus/TARGET) and what
# earlier runs found (BUILD_DIR/fuzz/corpus/TARGET, where new inputs go), N
# targets at a time (default 2). --seed fixes libFuzzer's random seed, so that
# a short run takes the same path on every machine (CI's smoke). Fails when a
# target crashes, breaks one of its invariants, leaks, runs out of memory or
# takes more than 10 s on one input; the input is kept in
# BUILD_DIR/fuzz/artifacts/TARGET.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
all_targets=(login_records custom_field_mapping attribute_rule acceptor tool_settings tool_mapping)

build=${1:?usage: run.sh BUILD_DIR [SECONDS] [--jobs N] [--seed N] [TARGET...]}
shift
seconds=60
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
jobs=2
seed=
targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --jobs) jobs=${2:?--jobs needs a number}; shift 2 ;;
        --seed) seed=${2:?--seed needs a number}; shift 2 ;;
        *) targets+=("$1"); shift ;;
    esac
done
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")

bin=$build/tests/fuzz
out=$build/fuzz
mkdir -p "$out/logs"

dictionary() {
    case "$1" in
        custom_field_mapping | tool_settings | tool_mapping) echo "$here/json.dict" ;;
        attribute_rule | login_records) echo "$here/$1.dict" ;;
    esac
}

# Leaks are errors: libFuzzer looks for one after each input that allocated
# more than it freed. The suppressions name leaks inside other libraries.
export LSAN_OPTIONS=suppressions=$here/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
asan_options() {
    case "$1" in
        # Qt's JSON parser leaks on repeated names; its suppression needs the
        # parser's frame in the stack, which only the slow unwinder finds
        # (about ten times fewer executions a second).
        custom_field_mapping | tool_settings | tool_mapping) echo "detect_leaks=1:fast_unwind_on_malloc=0" ;;
        *) echo "detect_leaks=1" ;;
    esac
}
symbolizer=$(command -v llvm-symbolizer-14 || command -v llvm-symbolizer || true)
[ -z "$symbolizer" ] || export ASAN_SYMBOLIZER_PATH=$symbolizer

run_target() {
    local target=$1 exe=$bin/fuzz_$1 log=$out/logs/$1.log
    local ASAN_OPTIONS
    ASAN_OPTIONS=$(asan_options "$target")
    export ASAN_OPTIONS
    local corpus=$out/corpus/$target artifacts=$out/artifacts/$target/
    local seeds=$here/corpus/$target regressions=$here/regressions/$target
    mkdir -p "$corpus" "$artifacts"
    : >"$log"
    if [ ! -x "$exe" ]; then
        echo "no such target: $exe" >>"$log"
        return 1
    fi
    local inputs=()
    [ -d "$regressions" ] && inputs=("$regressions"/*)
    if [ ${#inputs[@]} -gt 0 ] && [ -e "${inputs[0]}" ]; then
        echo "== replaying ${#inputs[@]} regression inputs" >>"$log"
        "$exe" -timeout=10 "${inputs[@]}" >>"$log" 2>&1 || return 1
    fi
    local options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$artifacts")
    local dict
    dict=$(dictionary "$target")
    [ -z "$dict" ] || options+=(-dict="$dict")
    [ -z "$seed" ] || options+=(-seed="$seed")
    local dirs=("$corpus")
    [ -d "$seeds" ] && dirs+=("$seeds")
    [ -d "$regressions" ] && dirs+=("$regressions")
    echo "== fuzzing for $seconds s" >>"$log"
    "$exe" "${options[@]}" "${dirs[@]}" >>"$log" 2>&1
}

# One line per target from libFuzzer's final figures.
summary() {
    local target=$1 status=$2 log=$out/logs/$1.log
    local done_line execs rate
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1 || true)
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    local cov ft corp
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
    corp=$(sed -n 's/.* corp: \([^ ]*\).*/\1/p' <<<"$done_line")
    printf '%-22s %-6s %12s %9s %6s %6s %12s\n' "$target" "$([ "$status" = 0 ] && echo ok || echo FAILED)" \
        "${execs:--}" "${rate:--}" "${cov:--}" "${ft:--}" "${corp:--}"
}

echo "Fuzzing ${#targets[@]} targets for $seconds s each, $jobs at a time (logs in $out/logs)"
start=$(date +%s)
for target in "${targets[@]}"; do
    rm -f "$out/logs/$target.status"
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
        wait -n || true
    done
    (
        set +e
        run_target "$target"
        echo $? >"$out/logs/$target.status"
    ) &
done
wait

status=0
printf '%-22s %-6s %12s %9s %6s %6s %12s\n' target result executions exec/s cov ft corpus
for target in "${targets[@]}"; do
    s=$(cat "$out/logs/$target.status" 2>/dev/null || echo 1)
    summary "$target" "$s"
    [ "$s" = 0 ] || status=1
done
echo "($(($(date +%s) - start)) s)"
for target in "${targets[@]}"; do
    s=$(cat "$out/logs/$target.status" 2>/dev/null || echo 1)
    if [ "$s" != 0 ]; then
        echo "---- $target: $out/logs/$target.log" >&2
        grep -v -E '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse|RELOAD)' "$out/logs/$target.log" | tail -60 >&2
    fi
done
exit $status
