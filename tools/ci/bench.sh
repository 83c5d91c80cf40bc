#!/usr/bin/env bash
# make bench: builds the benchmarks optimised and prints the table of ratios.
set -euo pipefail
cd "$(dirname "$0")/../.."
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVISTREL_BUILD_BENCH=ON \
      -DVISTREL_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target vistrel_bench
build-bench/bench/vistrel_bench --benchmark_min_time=0.5 "$@"
