#!/usr/bin/env bash
# make test-fuzz: builds the libFuzzer targets of fuzz/ with clang (the
# library and the targets with AddressSanitizer, UndefinedBehaviorSanitizer
# and coverage) in build-fuzz/, then runs each target for a bounded time,
# starting from its seed corpus in fuzz/corpus/<target>/.
#
# A crash, a sanitizer report, a leak or a timeout of a single input fails
# the run; the input that did it is kept in build-fuzz/fuzz/artifacts/.
# FUZZ_SECONDS sets the time per target (default 20).
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs=${JOBS:-2}
seconds=${FUZZ_SECONDS:-20}

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DVISTREL_SANITIZE=address,undefined,fuzzer-no-link \
      -DVISTREL_BUILD_FUZZ=ON -DVISTREL_BUILD_TESTS=OFF >/dev/null

targets=(fuzz_service_replies fuzz_caller_inputs)
# The EDID parser's target exists once the emulator's parser does.
if [ -f emulator/edid/EdidParser.cpp ]; then
    targets+=(fuzz_edid_parser)
fi
if [ -f fuzz/fuzz_frames.cpp ]; then
    targets+=(fuzz_frames fuzz_client_frames)
fi
cmake --build build-fuzz -j"$jobs" --target "${targets[@]}"

export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:strict_string_checks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"

failed=0
summary=()
for target in "${targets[@]}"; do
    work=build-fuzz/fuzz/work/$target        # new inputs found in this run
    artifacts=build-fuzz/fuzz/artifacts/$target
    log=build-fuzz/fuzz/$target.log
    rm -rf "$work" "$artifacts"
    mkdir -p "$work" "$artifacts"

    seeds=("fuzz/corpus/$target")
    # The EDID parser also starts from every real EDID the tests use.
    [ "$target" = fuzz_edid_parser ] && seeds+=(tests/data/edid)

    status=0
    # The seed corpora are read only: new inputs go to the work directory.
    "build-fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$artifacts/" \
        "$work" "${seeds[@]}" >"$log" 2>&1 || status=$?

    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    if [ $status -ne 0 ] || compgen -G "$artifacts/*" >/dev/null; then
        failed=1
        echo "fuzz: $target FAILED (exit $status); last lines of $log:"
        tail -n 60 "$log"
        summary+=("$target: FAILED after ${runs:-?} executions; inputs kept in $artifacts")
    else
        summary+=("$target: ${runs:-?} executions in ${seconds} s, no findings")
    fi
done

echo "fuzz:"
for line in "${summary[@]}"; do echo "  $line"; done
exit $failed
