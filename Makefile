# The commands a user needs: `make test`, `make demo` and `make package`.
# Each installs what it is missing (and only that) and builds first.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

MAGIC_DB   := /etc/corvid/outpost/magic.mgc

FUZZ_RUNS    ?= 1000000
FUZZ_SECONDS ?= 3600

.PHONY: fuzz all deps deps-demo deps-build build build-run build-asan test test-unit test-asan demo package \
        install format clean magic-db

# What the demo and the package run: the daemon, the stand-in agent and the
# local receiver; no tests, no benchmarks.
RUN_TARGETS := corvid-edr corvid-outpost corvid-test-receiver

all: build

deps:
	@bash scripts/install-deps.sh all

deps-demo:
	@bash scripts/install-deps.sh demo

deps-build:
	@bash scripts/install-deps.sh build

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

# Only the programs, in the same build directory; without the test frameworks
# installed the configuration leaves the tests and benchmarks out.
build-run: deps-build
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target $(RUN_TARGETS)

# The sanitizer build uses clang, which also builds the libFuzzer targets.
build-asan: deps
	@if [ -f $(ASAN_BUILD)/CMakeCache.txt ] && ! grep -q 'CMAKE_CXX_COMPILER:.*clang' $(ASAN_BUILD)/CMakeCache.txt; then rm -rf $(ASAN_BUILD); fi
	@CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCORVID_SANITIZE=ON -DCORVID_BUILD_BENCH=OFF -DCORVID_BUILD_FUZZ=ON $(CMAKE_ARGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# The whole suite: every test of the normal build, then the unit tests again
# under AddressSanitizer and UndefinedBehaviorSanitizer.
# The daemon reads its file-type database at a fixed path.
magic-db: deps-build
	@[ -f $(MAGIC_DB) ] || install -D -m 0644 /usr/share/misc/magic.mgc $(MAGIC_DB)

test: build build-asan magic-db
	@bash scripts/run-tests.sh $(BUILD) $(ASAN_BUILD)

test-unit: build
	@cd $(BUILD) && ctest --output-on-failure -L unit -j $(JOBS)

demo: deps-demo build-run magic-db
	@bash scripts/demo.sh $(BUILD)

# The Debian package $(BUILD)/corvid-edr_<version>_<arch>.deb.
package: build-run
	@cd $(BUILD) && cpack -G DEB

install: build-run
	@cmake --install $(BUILD)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD)

# Each fuzzer from its committed seeds until FUZZ_RUNS executions, under the
# sanitizers, one after another; one that has not reached them within
# FUZZ_SECONDS fails (FUZZ_RUNS= runs each for FUZZ_SECONDS instead). Inputs
# that fail are kept in $(ASAN_BUILD)/tests/fuzz/<name>.run.
fuzz: build-asan
	@cd $(ASAN_BUILD) && CORVID_FUZZ_RUNS=$(FUZZ_RUNS) CORVID_FUZZ_SECONDS=$(FUZZ_SECONDS) \
	  ctest -R Fuzzer --timeout $$(( $(FUZZ_SECONDS) + 120 )) --output-on-failure -V >fuzz.log; \
	  status=$$?; grep -E 'Test +#|fuzz: |Passed|Failed' fuzz.log; exit $$status
