#!/usr/bin/env bash
# make test-sanitizers: the whole test suite built with clang twice and run
# with ctest, once with AddressSanitizer + UndefinedBehaviorSanitizer
# (build-asan/) and once with ThreadSanitizer (build-tsan/).
#
# Any sanitizer report fails its leg: the first report stops the process
# with a nonzero exit code, and every report is also written to a file under
# <build>/sanitizer-reports/, which is checked after the run. That also
# catches a report from the child process of a death test, whose own output
# gtest keeps to itself. Death tests that abort as expected leave no report.
#
# Both legs run even when the first fails; the script prints each leg's wall
# time and fails when either leg failed.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
jobs=${JOBS:-2}
summary=()

# The runtimes name a report's frames through llvm-symbolizer. Without it
# every frame is <null>, and the suppressions, which match function names,
# match nothing: the symbolizer is part of the leg, not a nicety.
tools/deps.sh clang libclang-rt-14-dev llvm-14
symbolizer=/usr/lib/llvm-14/bin/llvm-symbolizer
[ -x "$symbolizer" ] || { echo "sanitizers: $symbolizer is missing" >&2; exit 1; }
export ASAN_SYMBOLIZER_PATH=$symbolizer TSAN_SYMBOLIZER_PATH=$symbolizer

# Reports that count: sanitizer errors and races. Other lines a runtime may
# write to the same file (notes, warnings about its own limits) are shown but
# do not fail the leg.
report_pattern='ERROR: (AddressSanitizer|LeakSanitizer)|runtime error:|WARNING: ThreadSanitizer'

run_leg() {
    local name=$1 dir=$2 sanitize=$3
    local reports=$root/$dir/sanitizer-reports
    local start built finished status=0

    start=$(date +%s)
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVISTREL_BUILD_TESTS=ON \
          -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
          -DVISTREL_SANITIZE="$sanitize" >/dev/null || status=$?
    [ $status -eq 0 ] && { cmake --build "$dir" -j"$jobs" || status=$?; }
    built=$(date +%s)

    rm -rf "$reports"
    mkdir -p "$reports"
    if [ $status -eq 0 ]; then
        (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300) || status=$?
    fi
    finished=$(date +%s)

    if compgen -G "$reports/*" >/dev/null; then
        echo "sanitizers: $name: sanitizer output:"
        cat "$reports"/*
        if grep -qE "$report_pattern" "$reports"/*; then status=1; fi
    fi

    local verdict=passed
    [ $status -eq 0 ] || verdict=FAILED
    summary+=("$name: build $((built - start)) s, tests $((finished - built)) s, $verdict")
    return $status
}

asan_reports=$root/build-asan/sanitizer-reports
asan_options="halt_on_error=1:exitcode=66:detect_leaks=1:strict_string_checks=1"
asan_options+=":external_symbolizer_path=$symbolizer"
ubsan_options="halt_on_error=1:exitcode=67:print_stacktrace=1"
ubsan_options+=":external_symbolizer_path=$symbolizer"
asan_status=0
ASAN_OPTIONS="$asan_options:log_path=$asan_reports/asan" \
UBSAN_OPTIONS="$ubsan_options:log_path=$asan_reports/ubsan" \
    run_leg "address+undefined" build-asan address,undefined || asan_status=$?

# The suppressions cover only the uninstrumented host libraries; each entry
# says why its reports are not races.
tsan_reports=$root/build-tsan/sanitizer-reports
tsan_options="halt_on_error=1:exitcode=68:second_deadlock_stack=1"
tsan_options+=":external_symbolizer_path=$symbolizer"
tsan_options+=":suppressions=$root/tools/ci/tsan.supp"
tsan_status=0
TSAN_OPTIONS="$tsan_options:log_path=$tsan_reports/tsan" \
    run_leg "thread" build-tsan thread || tsan_status=$?

echo "sanitizers:"
for line in "${summary[@]}"; do echo "  $line"; done
[ $asan_status -eq 0 ] && [ $tsan_status -eq 0 ]
