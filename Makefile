# The two commands a user needs: `make test` and `make demo`. Both install
# what is missing and build first.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

MAGIC_DB   := /etc/corvid/outpost/magic.mgc

.PHONY: all deps build build-asan test test-unit test-asan demo install format clean magic-db

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

# The sanitizer build uses clang, which also builds the libFuzzer targets.
build-asan: deps
	@if [ -f $(ASAN_BUILD)/CMakeCache.txt ] && ! grep -q 'CMAKE_CXX_COMPILER:.*clang' $(ASAN_BUILD)/CMakeCache.txt; then rm -rf $(ASAN_BUILD); fi
	@CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCORVID_SANITIZE=ON -DCORVID_BUILD_BENCH=OFF -DCORVID_BUILD_FUZZ=ON $(CMAKE_ARGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# The whole suite: every test of the normal build, then the unit tests again
# under AddressSanitizer and UndefinedBehaviorSanitizer.
# The daemon reads its file-type database at a fixed path.
magic-db: deps
	@[ -f $(MAGIC_DB) ] || install -D -m 0644 /usr/share/misc/magic.mgc $(MAGIC_DB)

test: build build-asan magic-db
	@bash scripts/run-tests.sh $(BUILD) $(ASAN_BUILD)

test-unit: build
	@cd $(BUILD) && ctest --output-on-failure -L unit -j $(JOBS)

demo: build magic-db
	@bash scripts/demo.sh $(BUILD)

install: build
	@cmake --install $(BUILD)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD)
