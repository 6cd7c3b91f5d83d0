# Every target does its own set-up: scripts/bootstrap installs what is missing,
# then CMake configures and builds the tree that the target needs.
JOBS         ?= $(shell nproc)
FUZZ_SECONDS ?= 60
BENCH_FILTER ?=
LAUNCHER     := $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
CMAKE        := cmake -G Ninja -DFENNICK_WERROR=ON -Wno-dev $(LAUNCHER)
CTEST        := ctest --output-on-failure -j $(JOBS) --timeout 300

# Several checkouts of the tree share one compiler cache.
export CCACHE_BASEDIR  := $(CURDIR)
export CCACHE_NOHASHDIR := 1

.PHONY: all release run test test-asan test-tsan bench fuzz clean

all: release

release:
	@scripts/bootstrap build
	@$(CMAKE) -S . -B build/release -DCMAKE_BUILD_TYPE=Release \
	  -DFENNICK_BUILD_TESTS=OFF -DFENNICK_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build/release -j $(JOBS)

run: release
	@build/release/Tools/fennick/fennick demo

test:
	@scripts/bootstrap build test
	@$(CMAKE) -S . -B build/debug -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DFENNICK_BUILD_TESTS=ON -DFENNICK_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build/debug -j $(JOBS)
	@cd build/debug && $(CTEST)

test-asan:
	@scripts/bootstrap build test
	@$(CMAKE) -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFENNICK_SANITIZE=address \
	  -DFENNICK_BUILD_TESTS=ON -DFENNICK_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build/asan -j $(JOBS)
	@cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 LSAN_OPTIONS=suppressions=$(CURDIR)/Tests/lsan.supp \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(CTEST)

test-tsan:
	@scripts/bootstrap build test
	@$(CMAKE) -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFENNICK_SANITIZE=thread \
	  -DFENNICK_BUILD_TESTS=ON -DFENNICK_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build/tsan -j $(JOBS)
	@cd build/tsan && G_SLICE=always-malloc TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/Tests/tsan.supp $(CTEST)

# Benchmarks print "ratio <name> <median of peer time / Fennick time>" lines;
# BENCH_FILTER (a regular expression over comparison names) selects some.
bench:
	@scripts/bootstrap build bench
	@$(CMAKE) -S . -B build/bench -DCMAKE_BUILD_TYPE=Release \
	  -DFENNICK_BUILD_TESTS=OFF -DFENNICK_BUILD_BENCHMARKS=ON >/dev/null
	@cmake --build build/bench -j $(JOBS)
	@build/bench/Benchmarks/fennick_bench $(if $(BENCH_FILTER),--filter='$(BENCH_FILTER)')

# Each libFuzzer target runs for FUZZ_SECONDS on its corpus under Tests/Fuzz.
fuzz:
	@scripts/bootstrap build fuzz
	@$(CMAKE) -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFENNICK_SANITIZE=fuzz \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DFENNICK_BUILD_TESTS=OFF -DFENNICK_BUILD_BENCHMARKS=OFF >/dev/null
	@cmake --build build/fuzz -j $(JOBS)
	@scripts/run-fuzzers build/fuzz/Tests/Fuzz Tests/Fuzz $(FUZZ_SECONDS)

clean:
	rm -rf build
