#!/usr/bin/env bash
# make style (and part of make test-checks): every C++ file as clang-format
# leaves it (root .clang-format), and clang-tidy with the root .clang-tidy over
# every source of the library, the platform stand-ins, the emulator and
# vistrelctl. Any difference or warning fails it.
#
# Only a configured tree is needed (build-tidy/, compile_commands.json with
# clang's flags) and the generated interface headers; nothing else is built.
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs=${JOBS:-2}

tools/deps.sh clang clang-format clang-tidy cmake hidl-gen libgtest-dev libgmock-dev \
    android-libutils-dev android-liblog-dev android-libcutils-dev

# The project's files: what git tracks, or every file when there is no git.
files() {  # patterns as for git ls-files, e.g. 'Vistrel/*.cpp'
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files "$@"
    else
        local p
        for p in "$@"; do find . -path "./build*" -prune -o -path "./$p" -print; done | sed 's|^\./||'
    fi
}

formatted=$(files '*.h' '*.cpp' | xargs clang-format --dry-run 2>&1 | grep 'warning:' || true)
if [ -n "$formatted" ]; then
    echo "$formatted"
    echo "style: $(echo "$formatted" | wc -l) places differ from clang-format's layout" \
         "(make format fixes them)"
    exit 1
fi

cmake -S . -B build-tidy -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
      -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-tidy --target hidl_headers hidl_remote >/dev/null

sources=$(files HDMIWrapper.cpp 'Vistrel/*.cpp' 'platform/*.cpp' 'emulator/*.cpp' 'tools/*.cpp')
out=build-tidy/tidy.log
echo "$sources" | xargs -P"$jobs" -n4 clang-tidy -p build-tidy --quiet >"$out" 2>/dev/null || true
if grep -q 'warning:\|error:' "$out"; then
    cat "$out"
    echo "style: clang-tidy has $(grep -c 'warning:\|error:' "$out") findings"
    exit 1
fi
echo "style: formatted, and clang-tidy has no findings in $(echo "$sources" | wc -l) sources"
