# Front door over CMake. `make demo` and `make test` work on a fresh Debian 12 machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
# Each benchmark three times for at least a second, medians reported: the
# machine is shared and small, and short runs of two threads vary the most.
BENCH_ARGS ?= --benchmark_min_time=1 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true

.PHONY: all bootstrap configure build test demo install tool bundle bench bench-peers bench-compare performance sanitize sanitize-asan sanitize-tsan fuzz-build fuzz clean

all: build

bootstrap:
	@scripts/bootstrap

$(BUILD)/build.ninja: | bootstrap
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

configure: bootstrap $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Only the tool and the module it loads: no tests.
tool: configure
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_cli

# The photograph beside the test chart comes from a Debian package, downloaded but
# not installed (scripts/fetch-demo-photo); without it the demo shows the chart.
demo: tool
	@scripts/fetch-demo-photo $(BUILD)/share/rawfx
	$(BUILD)/tools/rawfx/rawfx demo --out $(BUILD)/demo

# The plug-in for macOS x86-64, cross-built with clang and lld against the SDK
# that scripts/bootstrap-macos assembles, then checked: $(MACOS_BUILD)/rawfx.bundle.
# The embedding host's library is built for macOS too, so that it stays portable.
MACOS_BUILD ?= build-macos
bundle:
	@sdk=$$(scripts/bootstrap-macos) && \
	  cmake -S . -B $(MACOS_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release \
	    -DCMAKE_TOOLCHAIN_FILE=cmake/macos-x86_64.cmake -DRAWFX_MACOS_SDK="$$sdk"
	cmake --build $(MACOS_BUILD) -j $(JOBS) --target rawfx rawfx_host
	scripts/check-bundle $(MACOS_BUILD)/rawfx.bundle

# PREFIX/bin/rawfx and PREFIX/lib/rawfx/rawfx.so; the tool finds the module beside it.
PREFIX ?= /usr/local
install: tool
	cmake --install $(BUILD) --prefix $(PREFIX)

# Throughput of every effect through the host and of the reference kernels,
# written to $(BUILD)/bench.json.
bench: bootstrap
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DRAWFX_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_bench
	$(BUILD)/bench/rawfx_bench $(BENCH_ARGS) --benchmark_out=$(BUILD)/bench.json --benchmark_out_format=json

# The same jobs in OpenCV and ImageMagick beside rawfx's, written to $(BUILD)/bench_peers.json.
bench-peers: bootstrap
	@scripts/install-bench-peers
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DRAWFX_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_bench_peers
	$(BUILD)/bench/rawfx_bench_peers $(BENCH_ARGS) --benchmark_out=$(BUILD)/bench_peers.json --benchmark_out_format=json

# The module of REV against the working tree's, Apply for Apply in one process
# (scripts/bench-compare): COMPARE_ARGS takes --threads=N, --rounds=N and job names.
REV ?= HEAD
COMPARE_ARGS ?=
bench-compare: bootstrap
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DRAWFX_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_compare
	scripts/bench-compare $(REV) $(BUILD) $(COMPARE_ARGS)

# PERFORMANCE.md from one `make bench` run and one `make bench-peers` run right
# after it; the file is replaced only when both runs and the tables succeed.
performance: bench bench-peers
	scripts/bench-table --document $(BUILD)/bench.json $(BUILD)/bench_peers.json > $(BUILD)/PERFORMANCE.md
	mv $(BUILD)/PERFORMANCE.md PERFORMANCE.md

# ---- sanitizers ----------------------------------------------------------------
# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer, then the
# engine, effect and fault tests under ThreadSanitizer. Every report stops its
# test. The module the host copies and loads is built with the same flags, so
# its code is checked too. The differential tests run SANITIZE_DIFF_CASES cases
# per random loop under the sanitizers (they read it from RAWFX_DIFF_CASES).
SANITIZE_DIFF_CASES ?= 500
TSAN_TESTS = $(sort $(basename $(notdir $(wildcard \
  $(foreach t,host_engine effects interlace_* polar_* barrel_* oilpaint_* fault_*,tests/$(t)_test.cpp)))))

sanitize: sanitize-asan sanitize-tsan

sanitize-asan: bootstrap
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRAWFX_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	cd build-asan && RAWFX_DIFF_CASES=$(SANITIZE_DIFF_CASES) \
	  ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

# Only the TSAN_TESTS executables are built; ctest skips the placeholders of the
# others. setarch -R turns address randomisation off for the run, so that the
# ThreadSanitizer runtime finds its fixed memory layout on any kernel.
sanitize-tsan: bootstrap
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRAWFX_SANITIZE=thread -DRAWFX_BUILD_TOOL=OFF
	cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS)
	cd build-tsan && RAWFX_DIFF_CASES=$(SANITIZE_DIFF_CASES) TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  setarch $$(uname -m) -R ctest --output-on-failure -j $(JOBS) -E '_NOT_BUILT$$'

# ---- fuzzing -------------------------------------------------------------------
# Every fuzz target for FUZZ_SECONDS, from its seeds in fuzz/corpus/<target>/
# and what earlier runs kept in build-fuzz/corpus/<target>/. A finding stops the
# run and leaves its input in build-fuzz/artefacts/ (TESTING.md tells how to replay it).
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = effects_fuzzer image_loaders_fuzzer

fuzz-build:
	@scripts/bootstrap-fuzz
	cmake -S fuzz -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++
	cmake --build build-fuzz -j $(JOBS) --target $(FUZZ_TARGETS)

fuzz: fuzz-build
	@mkdir -p build-fuzz/artefacts
	@for target in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$target; \
	  echo "fuzz: $$target for $(FUZZ_SECONDS) s"; \
	  build-fuzz/$$target -max_total_time=$(FUZZ_SECONDS) -timeout=10 -print_final_stats=1 \
	    -artifact_prefix=build-fuzz/artefacts/$$target- build-fuzz/corpus/$$target fuzz/corpus/$$target \
	    || exit 1; \
	done

clean:
	rm -rf $(BUILD) $(MACOS_BUILD)
