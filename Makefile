# The two commands a newcomer needs:
#   make run    builds vistrelctl and shows an emulated TV through the library
#   make test   builds everything and runs every test
# Each installs the Debian packages it needs first.

BUILD      ?= build
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

HOST_DEPS := cmake make g++ clang libclang-rt-14-dev python3 libgtest-dev libgmock-dev \
             libbenchmark-dev android-libutils-dev android-liblog-dev android-libcutils-dev \
             edid-decode

.PHONY: all deps build run test test-host test-checks bench format clean

all: build

deps:
	@tools/deps.sh $(HOST_DEPS)

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

run: build
	tools/run.sh $(BUILD)

test: test-host test-checks

test-host: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS) --timeout 300

test-checks: deps
	python3 tests/check_build_lists.py
	python3 tests/check_interfaces.py

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf $(BUILD)
