# Front door over CMake. `make demo` and `make test` work on a fresh Debian 12 machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all bootstrap configure build test demo bench bench-peers sanitize clean

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

demo: build
	$(BUILD)/tools/rawfx/rawfx demo --out $(BUILD)/demo

# Throughput of every effect through the host and of the reference kernels,
# written to $(BUILD)/bench.json.
bench: bootstrap
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DRAWFX_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_bench
	$(BUILD)/bench/rawfx_bench --benchmark_out=$(BUILD)/bench.json --benchmark_out_format=json

# The same jobs in OpenCV and ImageMagick beside rawfx's, written to $(BUILD)/bench_peers.json.
bench-peers: bootstrap
	@scripts/install-bench-peers
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DRAWFX_BUILD_BENCH=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS) --target rawfx_bench_peers
	$(BUILD)/bench/rawfx_bench_peers --benchmark_out=$(BUILD)/bench_peers.json --benchmark_out_format=json

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer, then the
# engine and effect tests under ThreadSanitizer with several workers.
sanitize: bootstrap
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRAWFX_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j $(JOBS)
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRAWFX_SANITIZE=thread -DRAWFX_BUILD_TOOL=OFF
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS) -R '^(Host|Engine|Interlace|Barrel|Polar|OilPaint)'

clean:
	rm -rf $(BUILD)
