# Front door over CMake. `make demo` and `make test` work on a fresh Debian 12 machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all bootstrap configure build test demo bench clean

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

clean:
	rm -rf $(BUILD)
