# The front door. Every target installs what is missing first, so each one works
# on a fresh machine: make demo | test | sanitize | fuzz-smoke | bench | install.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
BUILD := build
PREFIX ?= /usr/local

.PHONY: deps build demo test sanitize tsan asan fuzz-smoke bench install install-check package clean format mutate

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt:
	@scripts/install-deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

# Only what the demo needs (the library, demo_server and its proto, relay_call):
# no tests, fuzzers or benchmarks.
demo: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS) --target demo
	$(BUILD)/examples/demo_server $(DEMO_ARGS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS) --timeout 300
	scripts/check-install $(BUILD)
	scripts/deploy-check $(BUILD)

# ASan+UBSan over every test, then ThreadSanitizer over the threaded ones.
sanitize: asan tsan

asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DHSL_BUILD_EXAMPLES=OFF \
	  -DHSL_SANITIZE=address,undefined -DCMAKE_CXX_COMPILER=clang++
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS) --timeout 600

tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DHSL_BUILD_EXAMPLES=OFF \
	  -DHSL_SANITIZE=thread -DCMAKE_CXX_COMPILER=clang++
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/scripts/tsan.supp \
	  ctest --output-on-failure -j$(JOBS) -L threaded --timeout 600

# Each mutant of scripts/mutants.toml applied in a scratch build (build-mutate/),
# the unit tests run against it; fails when a mutant survives or an entry is stale.
# MUTATE_ARGS='--only rpc' runs a subset.
mutate: deps
	scripts/mutate -j$(JOBS) $(MUTATE_ARGS)

FUZZ_SECONDS ?= 60
fuzz-smoke: deps
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHSL_BUILD_EXAMPLES=OFF \
	  -DHSL_BUILD_TESTS=OFF -DHSL_BUILD_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++
	cmake --build build-fuzz -j$(JOBS)
	scripts/fuzz-smoke build-fuzz $(FUZZ_SECONDS)

bench:
	@scripts/install-deps --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DHSL_BUILD_TESTS=OFF -DHSL_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS)
	scripts/run-bench build-bench

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# A Debian package of the library, its headers, its CMake and pkg-config files
# and relay_call, in $(BUILD)/: `apt-get install ./$(BUILD)/libhttp-server-lib-dev_*.deb`.
package: build
	cd $(BUILD) && cpack -G DEB

format:
	clang-format -i $$(git ls-files '*.cc' '*.h')

clean:
	rm -rf build build-asan build-tsan build-fuzz build-bench build-mutate
