# Thin wrapper around CMake. `make` builds into build/, `make test` runs
# everything (also under ASan+UBSan), `make m32` proves the 32-bit build.
BUILD      ?= build
ASAN_BUILD ?= build-asan
M32_BUILD  ?= build-m32
M32_CLANG_BUILD ?= build-m32-clang
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 30
JOBS       ?= $(shell nproc)
CMAKE_GEN  := -G Ninja
# Benchmarks are built by `make bench` only: no test needs them.
BENCH      ?= OFF
# More arguments for every configure (CI: -DHERON_LINE_TABLES=ON).
HERON_CMAKE_ARGS ?=
CONFIGURE  := cmake -S . $(CMAKE_GEN) $(HERON_CMAKE_ARGS)

.PHONY: all build deps test test-native test-asan asan-build m32 m32-clang lint format format-check demo bench fuzz fuzz-build clean install

all: build

deps:
	@bash scripts/install-deps.sh

build:
	@test -f $(BUILD)/build.ninja || $(CONFIGURE) -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_BENCH=$(BENCH)
	cmake --build $(BUILD) -j $(JOBS)

# The tests spend much of their time waiting on the processes they start.
# Beside them, at the lowest priority, on the cores they leave idle: the
# sanitizer build while the native tests run, and a short run of every fuzz
# target (TEST_FUZZ_SECONDS each, 0 for none) while the sanitizer tests run.
TEST_FUZZ_SECONDS ?= 10

test: deps build
	@bash scripts/beside.sh -q '$(MAKE) --no-print-directory asan-build' $(MAKE) --no-print-directory test-native
	@bash scripts/beside.sh '$(FUZZ_BESIDE)' $(MAKE) --no-print-directory test-asan

test-native: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 600

# clang: it compiles this code in about 60 % of GCC's time, and GCC already
# builds the native and 32-bit sides. The fuzz targets are built here too,
# over the same instrumented libraries: make test runs them from this build
# instead of compiling everything once more.
asan-build:
	@grep -qs '^HERON_FUZZ:BOOL=ON' $(ASAN_BUILD)/CMakeCache.txt || CC=clang CXX=clang++ $(CONFIGURE) -B $(ASAN_BUILD) \
	  -DCMAKE_BUILD_TYPE=Debug -DHERON_SANITIZE=ON -DHERON_FUZZ=ON
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# Every fuzz target over its seed corpus, briefly, from the sanitizer build:
# a regression input in the corpus that crashes again, or a shallow finding,
# fails the tests. Longer runs: make fuzz.
FUZZ_BESIDE := $(if $(filter 0,$(TEST_FUZZ_SECONDS)),true,FUZZ_SECONDS=$(TEST_FUZZ_SECONDS) FUZZ_JOBS=1 bash scripts/fuzz.sh $(ASAN_BUILD))

test-asan: asan-build
	# Tests labelled `once` (packaging, installing, the soak, a real
	# Prometheus) check the system around the code, not its memory safety:
	# the native run covers them. LeakSanitizer is on; only the tests that run
	# programs under strace turn it off for those (it cannot work under ptrace).
	ASAN_OPTIONS=detect_leaks=1 ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS) --timeout 900 -LE once

m32: deps
	@test -f $(M32_BUILD)/build.ninja || $(CONFIGURE) -B $(M32_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_M32=ON
	cmake --build $(M32_BUILD) -j $(JOBS)
	ctest --test-dir $(M32_BUILD) --output-on-failure -j $(JOBS) -L unit

# The 32-bit runtime built with clang too: it lays out and lowers atomics
# differently from GCC. The layouts are pinned by static_asserts the compile
# checks; the generated code is checked for single-instruction shared words.
# The 32-bit unit tests run in the GCC build (make m32).
m32-clang: deps
	@test -f $(M32_CLANG_BUILD)/build.ninja || CC=clang CXX=clang++ $(CONFIGURE) -B $(M32_CLANG_BUILD) \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_M32=ON -DHERON_BENCH=OFF
	cmake --build $(M32_CLANG_BUILD) -j $(JOBS) --target heronrt
	ctest --test-dir $(M32_CLANG_BUILD) --output-on-failure -R '^m32\.SharedWords'

# Reads a compile database of its own (configured, not built): no build needed.
lint: deps
	bash scripts/lint.sh $(BUILD)

# Every C++ source and header of the project (the build directories sit at
# the top and are not searched).
FORMAT_FILES = $(shell find platform src app tools tests bench -name '*.cpp' -o -name '*.h' | LC_ALL=C sort)

format:
	clang-format -i $(FORMAT_FILES)

# Fails, naming each place, when a file differs from what `make format` makes.
format-check:
	clang-format --dry-run --Werror $(FORMAT_FILES)

bench: deps
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS)
	bash bench/run.sh $(BUILD)

# libFuzzer targets (clang, ASan, UBSan), each run FUZZ_SECONDS over a copy of
# its seed corpus in tests/fuzz/corpus; any finding fails.
fuzz: fuzz-build
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/fuzz.sh $(FUZZ_BUILD)

fuzz-build: deps
	@test -f $(FUZZ_BUILD)/build.ninja || CC=clang CXX=clang++ $(CONFIGURE) -B $(FUZZ_BUILD) \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_BENCH=OFF -DHERON_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz

demo: deps build
	bash scripts/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-lint $(ASAN_BUILD) $(M32_BUILD) $(M32_CLANG_BUILD) $(FUZZ_BUILD)
