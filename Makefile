# Every target does its own set-up: scripts/bootstrap installs what is missing,
# then CMake configures and builds the tree that the target needs.
JOBS    ?= $(shell nproc)
CMAKE   := cmake -G Ninja -DFENNICK_WERROR=ON -Wno-dev
CTEST   := ctest --output-on-failure -j $(JOBS) --timeout 300

.PHONY: all release run test test-asan test-tsan bench clean bootstrap

all: release

bootstrap:
	@scripts/bootstrap

release: bootstrap
	@$(CMAKE) -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build/release -j $(JOBS)

run: release
	@build/release/Tools/fennick/fennick demo

test: bootstrap
	@$(CMAKE) -S . -B build/debug -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build build/debug -j $(JOBS)
	@cd build/debug && $(CTEST)

test-asan: bootstrap
	@$(CMAKE) -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFENNICK_SANITIZE=address >/dev/null
	@cmake --build build/asan -j $(JOBS)
	@cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(CTEST)

test-tsan: bootstrap
	@$(CMAKE) -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFENNICK_SANITIZE=thread >/dev/null
	@cmake --build build/tsan -j $(JOBS)
	@cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(CTEST)

bench: release
	@build/release/Benchmarks/fennick_bench

clean:
	rm -rf build
