# The two entry points a newcomer needs:
#   make demo   installs what is missing, builds, and runs the demo
#   make test   installs what is missing, builds from scratch, runs every test,
#               then runs them again under the address and undefined-behaviour sanitizers
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)

.PHONY: setup build test test-plain test-sanitize demo bench clean

setup:
	bash scripts/setup.sh

build: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS) -- --no-print-directory

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-sanitize: setup
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQUORVEL_SANITIZE=ON -DQUORVEL_BENCH=OFF >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS) -- --no-print-directory
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test: test-plain test-sanitize

demo: build
	$(BUILD)/tools/quorvel demo

bench: build
	bash bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
