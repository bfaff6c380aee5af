# Entry points for a fresh machine. `make test` is what CI runs.
JOBS      ?= 2
BUILD     ?= build
ASAN      ?= build-asan
TSAN      ?= build-tsan
BENCHDIR  ?= build-bench
CTEST_ARGS ?= --output-on-failure -j$(JOBS)

.PHONY: all setup build test test-release test-asan test-tsan tsan bench demo clean format fuzz fuzz-build

all: build

setup:
	@bash scripts/setup.sh

build: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) -j$(JOBS)

# Release build with every test, the same suite under AddressSanitizer+UBSan, then the
# concurrency suites under ThreadSanitizer.
test: setup test-release test-asan test-tsan

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
tsan: setup test-tsan

test-tsan:
	cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_SANITIZE=thread
	cmake --build $(TSAN) -j$(JOBS)
	cd $(TSAN) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest $(CTEST_ARGS) -R Concurrency

bench: setup
	cmake -S . -B $(BENCHDIR) -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_BENCH=ON -DQV_BUILD_TESTS=OFF
	cmake --build $(BENCHDIR) -j$(JOBS)
	@for b in $(BENCHDIR)/bench/bench_*; do [ -x "$$b" ] && "$$b" --benchmark_repetitions=5 \
		--benchmark_report_aggregates_only=true || exit 1; done

# The example shop application against the collector simulator on a free loopback port, then
# what the collector received (scripts/demo.sh; about 45 s after the build).
demo: build
	@bash scripts/demo.sh $(BUILD)

# libFuzzer harnesses of the proxy-mode frame decoder and the proxy's worker connections, built
# with clang (installed by `scripts/setup.sh fuzz`) from every agent source with ASan+UBSan. Each
# runs FUZZ_TIME seconds on one core; new inputs go to $(FUZZDIR)/corpus*, crashing ones to
# fuzz/regressions*/ (replayed by the normal test run).
FUZZDIR   ?= build-fuzz
FUZZ_TIME ?= 600
FUZZ_CXX  ?= clang++
FUZZ_CXXFLAGS = -std=c++20 -g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined \
	-DQV_BUILDING_AGENT -DQV_FAULT_POINTS=1 -Isrc -Iinclude $(shell pkg-config --cflags apr-1)
FUZZ_OBJS = $(patsubst src/%.cpp,$(FUZZDIR)/obj/%.o,$(wildcard src/*/*.cpp))

# Two harnesses, each run FUZZ_TIME seconds: fuzz_decode (one received buffer into the decoder)
# and fuzz_proxy_conn (worker connections' byte streams in reads of any size, inputs kept in
# fuzz/corpus_conn and fuzz/regressions_conn).
FUZZ_ENV = ASAN_OPTIONS=leak_check_at_exit=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions=$(CURDIR)/fuzz/ubsan.supp

fuzz: fuzz-build
	mkdir -p $(FUZZDIR)/corpus $(FUZZDIR)/corpus_conn fuzz/regressions fuzz/regressions_conn
	cd $(FUZZDIR) && $(FUZZ_ENV) ./fuzz_decode -jobs=1 -workers=1 \
		-max_total_time=$(FUZZ_TIME) -rss_limit_mb=4096 -dict=$(CURDIR)/fuzz/decode.dict \
		-artifact_prefix=$(CURDIR)/fuzz/regressions/ corpus $(CURDIR)/fuzz/corpus $(CURDIR)/fuzz/regressions
	@tail -n 3 $(FUZZDIR)/fuzz-0.log
	cd $(FUZZDIR) && $(FUZZ_ENV) ./fuzz_proxy_conn -jobs=1 -workers=1 \
		-max_total_time=$(FUZZ_TIME) -rss_limit_mb=4096 -dict=$(CURDIR)/fuzz/decode.dict \
		-artifact_prefix=$(CURDIR)/fuzz/regressions_conn/ corpus_conn $(CURDIR)/fuzz/corpus_conn \
		$(CURDIR)/fuzz/regressions_conn
	@tail -n 3 $(FUZZDIR)/fuzz-0.log

fuzz-build:
	@bash scripts/setup.sh fuzz
	$(MAKE) $(FUZZDIR)/fuzz_decode $(FUZZDIR)/fuzz_proxy_conn

$(FUZZDIR)/fuzz_decode $(FUZZDIR)/fuzz_proxy_conn: $(FUZZDIR)/%: fuzz/%.cpp $(FUZZ_OBJS)
	$(FUZZ_CXX) $(FUZZ_CXXFLAGS) -fsanitize=fuzzer,address,undefined $^ $(shell pkg-config --libs apr-1) -lpthread -o $@

$(FUZZDIR)/obj/%.o: src/%.cpp
	@mkdir -p $(dir $@)
	$(FUZZ_CXX) $(FUZZ_CXXFLAGS) -MMD -MP -c $< -o $@

-include $(FUZZ_OBJS:.o=.d)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) $(BENCHDIR) $(FUZZDIR)
