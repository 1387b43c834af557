# Entry points for people and CI: every target installs what is missing first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test test-browser demo bench bench-quality clean test-asan test-tsan fuzz test-windows

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

# The report page in a real browser: Debian's chromium is large, so only this
# target installs it; without it `make test` skips the browser tests.
test-browser: build
	@bash scripts/install-deps.sh chromium
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -R 'BrowserTest|ReportTest'

demo: build
	@bash scripts/demo.sh $(BUILD_DIR)

bench: build
	@$(BUILD_DIR)/bin/vr_bench --size $(BENCH_SIZE) --runs $(BENCH_RUNS) --out bench/results

# Recovery quality: short clips per container, writer and codec, seven damage models; the damaged file,
# ffmpeg's copy, the compatible and the thorough repair scored on decodable and bit-exact frames.
bench-quality: build
	@$(BUILD_DIR)/bin/vr_quality --out bench/results

clean:
	rm -rf $(BUILD_DIR) $(WINDOWS_BUILD_DIR)

# Checked builds, each in a folder of its own (see "Sanitizers and fuzzing" in README.md).
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60
# The tests that run threads against each other: pause/resume/cancel, the manager, logs,
# and the thorough repair counting the damaged file beside its carver.
# The tool's Ctrl-C tests stay out: ThreadSanitizer holds a signal back until the
# thread that gets it leaves a blocking call, so what they time never happens there.
TSAN_TESTS ?= Pause|Resume|Cancel|Stop|Thread|Concurren|Manager|CarvingControl|EngineBase|ThoroughCandidates
TSAN_SKIP ?= CliSignals|CtrlC
SANITIZER_ENV = ASAN_OPTIONS=detect_leaks=1:check_initialization_order=1:detect_stack_use_after_return=1 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/lsan.supp \
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/sanitizers/tsan.supp

test-asan: deps
	@cmake -S . -B $(ASAN_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVR_SANITIZE=address >/dev/null
	@cmake --build $(ASAN_BUILD_DIR) -j $(JOBS)
	@cd $(ASAN_BUILD_DIR) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) --timeout 900

test-tsan: deps
	@cmake -S . -B $(TSAN_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVR_SANITIZE=thread >/dev/null
	@cmake --build $(TSAN_BUILD_DIR) -j $(JOBS)
	@cd $(TSAN_BUILD_DIR) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) --timeout 900 -R '$(TSAN_TESTS)' -E '$(TSAN_SKIP)'

fuzz: deps
	@bash scripts/install-fuzz-deps.sh
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DVR_SANITIZE=fuzzer -DBUILD_TESTING=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target fuzzers
	@FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/fuzz.sh $(FUZZ_BUILD_DIR) $(FUZZ_TARGETS)

# Windows flavour: mingw-w64 cross build of lib_videorepair.dll, videorepair.exe
# and the tests, run under wine. Dependencies are cached in ~/.cache/videorepair-windows.
WINDOWS_BUILD_DIR ?= build-windows

test-windows:
	@bash scripts/windows/test.sh $(WINDOWS_BUILD_DIR)
