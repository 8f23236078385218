# Thin wrapper over CMake: the README's two commands, plus sanitizer builds
# and the benchmarks.
JOBS ?= 2
CMAKE ?= cmake

.PHONY: deps demo test asan tsan clang bench clean

deps:
	@./.ci/deps

build/Makefile: | deps
	$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo

demo: build/Makefile
	$(CMAKE) --build build -j$(JOBS) --target qmlock
	./build/bin/qmlock demo

test: build/Makefile
	$(CMAKE) --build build -j$(JOBS)
	cd build && ctest --output-on-failure -j$(JOBS)

asan: | deps
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQMELM_SANITIZE=address
	$(CMAKE) --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS)

tsan: | deps
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DQMELM_SANITIZE=thread
	$(CMAKE) --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -j$(JOBS)

# Compiles everything with clang++ and its thread-safety analysis (no run).
clang: | deps
	CXX=clang++ CC=clang $(CMAKE) -S . -B build-clang -DCMAKE_BUILD_TYPE=Debug -DQMELM_THREAD_SAFETY=ON
	$(CMAKE) --build build-clang -j$(JOBS)

bench: | deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release
	$(CMAKE) --build build-bench -j$(JOBS)
	@for b in build-bench/bin/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true || exit 1; done

clean:
	rm -rf build build-asan build-tsan build-clang build-bench
