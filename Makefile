# The two commands a newcomer needs:
#   make run    builds vistrelctl and shows an emulated TV through the library
#   make test   builds everything and runs every test
# Each installs the Debian packages it needs first.

BUILD      ?= build
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

HOST_DEPS := cmake make g++ clang libclang-rt-14-dev python3 libgtest-dev libgmock-dev \
             libbenchmark-dev android-libutils-dev android-liblog-dev android-libcutils-dev \
             edid-decode hidl-gen blueprint-tools

.PHONY: all deps build run test test-host test-checks test-sanitizers test-fuzz test-arm \
        bench format style clean

all: build

deps:
	@tools/deps.sh $(HOST_DEPS)

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

run: build
	tools/run.sh $(BUILD)

# Every leg must pass; any sanitizer report fails its leg.
test: test-host test-checks test-sanitizers test-fuzz test-arm

test-host: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS) --timeout 300

# The frozen interface hashes, and Android.bp as bpfmt leaves it with the host
# build's sources (both ctests of the host suite too), then style.
test-checks: build
	cd $(BUILD) && ctest --output-on-failure -R '^(interface_hashes|check_blueprint)$$'
	@if [ -x tools/ci/style.sh ]; then tools/ci/style.sh; fi

test-sanitizers: deps
	@if [ -x tools/ci/sanitizers.sh ]; then tools/ci/sanitizers.sh; fi

test-fuzz: deps
	@if [ -x tools/ci/fuzz.sh ]; then tools/ci/fuzz.sh; fi

test-arm: deps
	@if [ -x tools/ci/armhf.sh ]; then tools/ci/armhf.sh; fi

bench: deps
	@if [ -x tools/ci/bench.sh ]; then tools/ci/bench.sh; fi

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

style:
	tools/ci/style.sh

clean:
	rm -rf $(BUILD)
