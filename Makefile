# Entry points for a fresh machine. `make test` is what CI runs.
JOBS      ?= 2
BUILD     ?= build
ASAN      ?= build-asan
TSAN      ?= build-tsan
BENCHDIR  ?= build-bench
CTEST_ARGS ?= --output-on-failure -j$(JOBS)

.PHONY: all setup build test test-release test-asan tsan bench demo clean format

all: build

setup:
	@bash scripts/setup.sh

build: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j$(JOBS)

# Release build with every test, then the same suite under AddressSanitizer+UBSan.
test: setup test-release test-asan

test-release:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest $(CTEST_ARGS)

test-asan:
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_SANITIZE=address
	cmake --build $(ASAN) -j$(JOBS)
	cd $(ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest $(CTEST_ARGS) -E 'exported_symbols|layering'

# The concurrency tests (suites named *Concurrency) under ThreadSanitizer.
tsan: setup
	cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_SANITIZE=thread
	cmake --build $(TSAN) -j$(JOBS)
	cd $(TSAN) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest $(CTEST_ARGS) -R Concurrency

bench: setup
	cmake -S . -B $(BENCHDIR) -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_BENCH=ON -DQV_BUILD_TESTS=OFF
	cmake --build $(BENCHDIR) -j$(JOBS)
	@for b in $(BENCHDIR)/bench/bench_*; do [ -x "$$b" ] && "$$b" --benchmark_repetitions=5 \
		--benchmark_report_aggregates_only=true || exit 1; done

# Until the collector simulator lands, the demo builds the library and runs the tests' quick
# smoke set against it.
demo: build
	@echo "libqvagent.so built in $(BUILD)/src; exported symbols:"
	@nm -D --defined-only $(BUILD)/src/libqvagent.so | awk '{print "  " $$3}'

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) $(BENCHDIR)
