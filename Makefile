# Thin wrapper over CMake: the README's two commands, plus sanitizer builds
# and the benchmarks. The project's own builds treat warnings as errors
# (QMELM_WERROR); a consumer's build of the same sources does not.
JOBS ?= 2
CMAKE ?= cmake
OWN := -DQMELM_WERROR=ON

.PHONY: deps configure demo test asan tsan clang bench clean

# $(call quietly,LOG,COMMAND): runs COMMAND with its output kept in LOG,
# which is shown only when the command fails.
quietly = mkdir -p $(dir $(1)) && ( $(2) ) > $(1) 2>&1 || { cat $(1); echo "failed; the output above is in $(1)"; exit 1; }

deps:
	@./.ci/deps

# Configures build/ once, and again whenever it was configured without the
# project's own settings.
configure: deps
	@grep -qs '^QMELM_WERROR:BOOL=ON' build/CMakeCache.txt || \
	  { $(call quietly,build/configure.log,$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(OWN)); }

demo: configure
	@echo "building qmlock (log: build/build.log)"
	@$(call quietly,build/build.log,$(CMAKE) --build build -j$(JOBS) --target qmlock)
	@./build/bin/qmlock demo

# Prints the failing tests' output and the summary; the whole run is in
# build/ctest.log.
test: configure
	@echo "building (log: build/build.log)"
	@$(call quietly,build/build.log,$(CMAKE) --build build -j$(JOBS))
	@echo "testing (log: build/ctest.log)"
	@cd build && { ctest --output-on-failure -j$(JOBS) > ctest.log 2>&1; rc=$$?; \
	  grep -v -e ' Passed ' -e '^ *Start ' -e '^Test project' -e '^$$' ctest.log; exit $$rc; }

asan: | deps
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQMELM_SANITIZE=address $(OWN)
	$(CMAKE) --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS)

tsan: | deps
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DQMELM_SANITIZE=thread $(OWN)
	$(CMAKE) --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -j$(JOBS)

# Compiles everything with clang++ and its thread-safety analysis (no run).
clang: | deps
	CXX=clang++ CC=clang $(CMAKE) -S . -B build-clang -DCMAKE_BUILD_TYPE=Debug -DQMELM_THREAD_SAFETY=ON $(OWN)
	$(CMAKE) --build build-clang -j$(JOBS)

# The Google Benchmark programs, then qmlock run against util-linux flock(1).
# Builds only the bench_* programs and qmlock (with the libraries they load),
# not the test suite.
BENCH_TARGETS = qmlock $(basename $(notdir $(wildcard bench/bench_*.cpp)))
bench: | deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release $(OWN)
	$(CMAKE) --build build-bench -j$(JOBS) --target $(BENCH_TARGETS)
	@for b in build-bench/bin/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true || exit 1; done
	@echo "== bench/run_vs_flock.sh"
	@./bench/run_vs_flock.sh build-bench/bin/qmlock

clean:
	rm -rf build build-asan build-tsan build-clang build-bench
