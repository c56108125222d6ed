# The two entry points a newcomer needs:
#   make demo   installs what is missing, builds, and runs the demo
#   make test   installs what is missing, builds from scratch, runs every test,
#               then runs them again under the address and undefined-behaviour sanitizers,
#               then gives each libFuzzer target a short run (fuzz-smoke)
# and for longer fuzzing: make fuzz [FUZZ_SECONDS=N]
# and a Debian package of quorvel in this folder: make deb
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
JOBS       ?= $(shell nproc)

.PHONY: setup build deb test test-plain test-sanitize fuzz-build fuzz fuzz-smoke demo bench clean

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
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp \
	  UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# The libFuzzer targets build with clang in a folder of their own.
fuzz-build: setup
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEL_FUZZ=ON >/dev/null
	cmake --build $(FUZZ_BUILD) -j $(JOBS) -- --no-print-directory

# make fuzz [FUZZ_SECONDS=N]: each target N seconds, growing the kept corpus.
fuzz: fuzz-build
	bash scripts/fuzz.sh run $(FUZZ_BUILD) $(FUZZ_SECONDS)

# Each target about 20 seconds over its corpus, one after another.
fuzz-smoke: fuzz-build
	cd $(FUZZ_BUILD) && ctest --output-on-failure -R '^Fuzz\.'

test: test-plain test-sanitize fuzz-smoke

# Only the two programs are built for it: the package holds nothing else compiled.
deb: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS) --target quorvel quorvelfs -- --no-print-directory
	bash scripts/make_deb.sh $(BUILD) .

demo: build
	$(BUILD)/tools/quorvel demo

bench: build
	bash bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
