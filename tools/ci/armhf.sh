#!/usr/bin/env bash
# make test-arm: libVistrel on the ABI it ships on. Cross-compiles the library,
# the emulated HDMI service, vistrelctl and every test for 32-bit ARM
# (arm-linux-gnueabihf) against Debian's armhf builds of the AOSP libraries,
# GoogleTest and GoogleMock, then runs the whole test suite under qemu-arm with
# ctest. The record layouts' static_asserts are compiled for that ABI too.
#
# The armhf packages are downloaded with a private apt state and unpacked into
# build-armhf/sysroot, never installed: the host's own -dev packages and dpkg
# architectures stay as they are. The sysroot is kept between runs and made
# again only when the package list below changes (or ARMHF_REFRESH=1).
#
# The leg fails unless it ran as many tests as the host leg, with the same
# names: the host's list comes from its build folder (build/, or $HOST_BUILD),
# which is brought up to date (or made) first.
#
# Environment: JOBS (default 2), ARMHF_DIR (default build-armhf),
# HOST_BUILD (default build), ARMHF_REFRESH=1 to fetch the packages again.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
jobs=${JOBS:-2}
dir=${ARMHF_DIR:-build-armhf}
host_build=${HOST_BUILD:-build}
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
sysroot=$dir/sysroot
build=$dir/build
start=$(date +%s)

log() { echo "armhf: $*"; }

# What the host needs: the cross compiler and its armhf C/C++ runtime, the
# emulator, the HIDL compiler (run on the host during the build), and what the
# tests run on the host side (python3, edid-decode, the Blueprint tools).
tools/deps.sh cmake make g++ g++-arm-linux-gnueabihf qemu-user python3 edid-decode hidl-gen \
    blueprint-tools libgtest-dev libgmock-dev android-libutils-dev android-liblog-dev \
    android-libcutils-dev

# --- armhf packages --------------------------------------------------------
# The AOSP libraries with their headers and everything they load (libbase,
# libbacktrace and the 7z.so it links), GoogleTest and GoogleMock. The C and
# C++ runtime come from the cross toolchain instead.
packages=(
    android-libutils android-libutils-dev
    android-liblog android-liblog-dev
    android-libcutils android-libcutils-dev
    android-libbase android-libbase-dev
    android-libbacktrace android-libbacktrace-dev
    android-platform-system-core-headers
    p7zip-full
    libgtest-dev libgmock-dev
)
stamp=$sysroot/.packages

make_sysroot() {
    local apt=$dir/apt
    # apt with a state of its own that knows only armhf: the host's package
    # lists, status and locks are not touched.
    local opts=(-o APT::Architecture=armhf -o APT::Architectures::=armhf
                -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status"
                -o Dir::Cache="$apt/cache" -o APT::Sandbox::User=root -qq)
    rm -rf "$apt"
    mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$apt/debs"
    : >"$apt/status"

    # A mirror that is syncing serves some index files with the wrong size
    # and apt-get update fails for them. The packages may still be found
    # through the others, so each attempt tries the download either way.
    local attempt fetched=0
    for attempt in 1 2 3 4 5; do
        apt-get "${opts[@]}" update || log "apt-get update reported errors (attempt $attempt)"
        if (cd "$apt/debs" && apt-get "${opts[@]}" download "${packages[@]}"); then
            fetched=1
            break
        fi
        log "download failed (attempt $attempt); the mirror may be syncing, retrying"
        sleep $((attempt * 10))
    done
    [ $fetched -eq 1 ] || { log "could not download the armhf packages"; exit 1; }

    rm -rf "$sysroot.new"
    mkdir -p "$sysroot.new"
    local deb
    for deb in "$apt"/debs/*.deb; do
        dpkg-deb -x "$deb" "$sysroot.new"
    done
    # Record what was unpacked, and the list it came from.
    {
        echo "${packages[*]}"
        for deb in "$apt"/debs/*.deb; do basename "$deb"; done
    } >"$sysroot.new/.packages"
    rm -rf "$sysroot"
    mv "$sysroot.new" "$sysroot"
    rm -rf "$apt"
}

if [ "${ARMHF_REFRESH:-0}" = 1 ] || [ ! -f "$stamp" ] ||
   [ "$(head -n1 "$stamp")" != "${packages[*]}" ]; then
    log "unpacking the armhf packages into $sysroot"
    make_sysroot
else
    log "reusing $sysroot"
fi
sed -n '2,$p' "$stamp" | sed 's/^/armhf:   /'
prepared=$(date +%s)

# --- cross build -----------------------------------------------------------
# Release at -O2 like the host's RelWithDebInfo, without its debug
# information: a third less compile time, and the tests need none.
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
      -DVISTREL_PACKAGE_ROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" \
      -DVISTREL_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j"$jobs"
built=$(date +%s)

# --- the host's test list ----------------------------------------------------
# gtest_discover_tests lists a test executable's cases after it is built, so
# the host list needs a built host tree; an up-to-date one builds nothing.
if [ ! -f "$host_build/CMakeCache.txt" ]; then
    log "no host build in $host_build: making one for the test list"
    cmake -S . -B "$host_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$host_build" -j"$jobs" >"$dir/host-build.log" 2>&1 ||
    { cat "$dir/host-build.log"; log "the host build failed"; exit 1; }
list_tests() {  # test names of a ctest tree, sorted, without the parameter
    # values gtest prints after a parameterized test's name (they hold addresses)
    (cd "$1" && ctest -N) | sed -n 's/^ *Test *#[0-9]*: //p' | sed 's/  *# GetParam() = .*//' | sort
}
list_tests "$host_build" >"$dir/host-tests.txt"
list_tests "$build" >"$dir/armhf-tests.txt"
host_count=$(wc -l <"$dir/host-tests.txt")
listed=$(wc -l <"$dir/armhf-tests.txt")
host_listed=$(date +%s)

# --- tests under qemu-arm ----------------------------------------------------
# Most of the time under emulation is spent waiting (service replies, worker
# threads), so twice as many tests as cores run at once.
status=0
set +e
(cd "$build" && ctest --output-on-failure -j$((jobs * 2)) --timeout 300) | tee "$dir/ctest.log"
[ "${PIPESTATUS[0]}" -eq 0 ] || status=1
set -e
finished=$(date +%s)

ran=$(sed -n 's/.*tests passed, [0-9]* tests\{0,1\} failed out of \([0-9]*\)$/\1/p' "$dir/ctest.log" |
      tail -n1)
ran=${ran:-0}
log "sysroot $((prepared - start)) s, build $((built - prepared)) s," \
    "host list $((host_listed - built)) s, tests $((finished - host_listed)) s," \
    "total $((finished - start)) s"
log "ran $ran tests under qemu-arm (listed $listed); the host leg has $host_count"
if [ "$ran" -ne "$host_count" ] || [ "$listed" -ne "$host_count" ]; then
    log "test counts differ from the host's"
    status=1
fi
if ! diff -u --label host --label armhf "$dir/host-tests.txt" "$dir/armhf-tests.txt"; then
    log "test names differ from the host's (above)"
    status=1
fi
[ $status -eq 0 ] && log "passed" || log "FAILED"
exit $status
