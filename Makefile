# Entry points for people and CI: every target installs what is missing first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test demo bench clean test-windows

# Input size per engine for the benchmark (bytes); inputs are cached in ~/.cache/videorepair-bench.
BENCH_SIZE ?= 1073741824
BENCH_RUNS ?= 3

all: build

deps:
	@bash scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

bench: build
	@$(BUILD_DIR)/bin/vr_bench --size $(BENCH_SIZE) --runs $(BENCH_RUNS) --out bench/results

clean:
	rm -rf $(BUILD_DIR) $(WINDOWS_BUILD_DIR)

# Windows flavour: mingw-w64 cross build of lib_videorepair.dll, videorepair.exe
# and the tests, run under wine. Dependencies are cached in ~/.cache/videorepair-windows.
WINDOWS_BUILD_DIR ?= build-windows

test-windows:
	@bash scripts/windows/test.sh $(WINDOWS_BUILD_DIR)
