# Entry points: make test | make check | make format | make demo | make bench | make soak | make fuzz | make install |
# make uninstall | make lib
# Each target installs what is missing (Debian 12, apt-get), configures and builds.

BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
BENCH_BUILD ?= build-bench
FUZZ_BUILD ?= build-fuzz
LIB_BUILD  ?= build-lib
FUZZ_SECONDS ?= 60
STRESS_RUNS ?= 10
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
COMPONENTS = -DTARVIK_BUILD_TESTS=ON -DTARVIK_BUILD_SIM=ON -DTARVIK_BUILD_TOOLS=ON -DTARVIK_BUILD_EXAMPLES=ON
# The Python module only in the normal build: the sanitizer runtimes cannot be preloaded into python3.
PYTHON_COMPONENTS = -DTARVIK_BUILD_PYTHON=ON

PACKAGES = cmake make g++ pkg-config libboost-dev libgtest-dev libgmock-dev \
           libbenchmark-dev libcli11-dev nlohmann-json3-dev srecord ccache clang libclang-rt-14-dev \
           help2man bash-completion can-utils \
           pybind11-dev python3-dev python3-pytest python3-can clang-format clang-tidy cloc
# The library alone needs no more than these.
LIB_PACKAGES = cmake make g++ libboost-dev

# The fuzz build goes through ccache when there is one.
CCACHE := $(shell command -v ccache 2>/dev/null)
FUZZ_LAUNCHER = $(if $(CCACHE),-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build check layers format format-check tidy test test-asan test-tsan build-tsan test-stress fuzz fuzz-smoke demo bench soak \
        install uninstall lib install-lib clean

all: build

# Installs only the packages that are not there yet.
deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(COMPONENTS) $(PYTHON_COMPONENTS) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The product's own sources (the tests, benchmarks and examples are formatted, not tidied).
FORMAT_FILES = git ls-files -- 'tarvik/*.h' 'tarvik/*.cpp' 'sim/*.h' 'sim/*.cpp' 'tools/*.h' 'tools/*.cpp' \
               'python/src/*.h' 'python/src/*.cpp' 'tests/*.h' 'tests/*.cpp' 'tests/*.c' 'bench/*.h' 'bench/*.cpp' \
               'examples/*.c'
TIDY_FILES = git ls-files -- 'tarvik/*.cpp' 'sim/*.cpp' 'tools/*.cpp' 'python/src/*.cpp'

# The floors of the tree: no directory includes one above it, no two source pairs circle.
layers:
	/usr/bin/python3 tests/scripts/check_layers.py

format:
	$(FORMAT_FILES) | xargs clang-format-14 -i

format-check: deps
	$(FORMAT_FILES) | xargs clang-format-14 --dry-run -Werror

# clang-tidy with the naming rules and bug checks of .clang-tidy, over the build's compile commands.
# The tool and the Python module compile in unity batches: tidy reads those batches, which
# include the sources (the header filter reports findings in them).
tidy: build
	{ $(TIDY_FILES); echo '/Unity/unity_'; } | xargs run-clang-tidy-14 -p $(BUILD) -j $(JOBS) -quiet > $(BUILD)/tidy.log 2>&1 || \
	  { sed 's/\x1b\[[0-9;]*m//g' $(BUILD)/tidy.log | grep -E 'warning:|error:' | sort -u; \
	    echo "make tidy: see $(BUILD)/tidy.log"; exit 1; }
	@echo "tidy: $$($(TIDY_FILES) | wc -l) files, no findings"

check: layers format-check tidy

# The checks of the tree, the suite, then the same suite again with AddressSanitizer and UBSan,
# and with ThreadSanitizer (any sanitizer report fails its test), then a short fuzz run.
test: build
	$(MAKE) check
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure
	$(MAKE) test-asan
	$(MAKE) test-tsan
	$(MAKE) fuzz-smoke

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTARVIK_SANITIZE=ON $(COMPONENTS) $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=abort_on_error=1:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_BUILD) -j $(JOBS) --output-on-failure -LE script

TSAN_ENV = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

build-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTARVIK_SANITIZE_THREAD=ON $(COMPONENTS) $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS)

test-tsan: build-tsan
	$(TSAN_ENV) ctest --test-dir $(TSAN_BUILD) -j $(JOBS) --output-on-failure -LE script

# The suite and the TSan suite, STRESS_RUNS times each, beside two busy loops that keep
# both cores loaded; prints the failed runs and tests. Not part of make test.
test-stress: build build-tsan
	STRESS_ENV_tsan="$(TSAN_ENV)" STRESS_ARGS_tsan="-LE script" \
	  bash tests/stress/run_stress.sh $(STRESS_RUNS) normal=$(BUILD) tsan=$(TSAN_BUILD)

# Every libFuzzer target of tests/fuzz, built with clang, each run FUZZ_SECONDS on a scratch
# copy of its seeds; prints executions per second per target and fails on a crash.
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVIK_BUILD_FUZZ=ON \
	  -DTARVIK_BUILD_TESTS=OFF -DTARVIK_BUILD_SIM=OFF -DTARVIK_BUILD_TOOLS=OFF -DTARVIK_BUILD_EXAMPLES=OFF \
	  $(FUZZ_LAUNCHER) $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	bash tests/fuzz/run_fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

fuzz-smoke:
	$(MAKE) fuzz FUZZ_SECONDS=5

# Builds only what the demo runs (no tests); make test builds the rest.
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target tarvik_demo
	bash examples/demo.sh $(BUILD)

bench: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DTARVIK_BUILD_BENCH=ON -DTARVIK_BUILD_TESTS=OFF $(PYTHON_COMPONENTS) $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	bash bench/run_all.sh $(BENCH_BUILD)

# A million round trips on one client, then 512 clients at once, against a tarvik-sim process.
soak: deps
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DTARVIK_BUILD_BENCH=ON -DTARVIK_BUILD_TESTS=OFF $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target bench_soak tarvik-sim
	bash bench/run_soak.sh $(BENCH_BUILD)

# The programs find the library through their run path; ldconfig refreshes the loader's
# cache for system prefixes (harmless for others).
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)
	@if [ "$$(id -u)" = 0 ] && command -v ldconfig >/dev/null; then ldconfig; fi

# Removes what the last install from $(BUILD) wrote (cmake lists it in install_manifest.txt),
# then the directories that only tarvik uses, when they are left empty.
uninstall:
	@manifest=$(BUILD)/install_manifest.txt; \
	if [ ! -f "$$manifest" ]; then echo "make uninstall: no $$manifest; nothing was installed from $(BUILD)" >&2; exit 1; fi; \
	while IFS= read -r file || [ -n "$$file" ]; do rm -f -- "$$file"; done < "$$manifest"; \
	while IFS= read -r file || [ -n "$$file" ]; do dirname -- "$$file"; done < "$$manifest" | \
	  grep -E '/include/tarvik(/|$$)|/cmake/Tarvik$$|/doc/tarvik$$' | sort -ru | \
	  while IFS= read -r dir; do rmdir --ignore-fail-on-non-empty -- "$$dir" 2>/dev/null || true; done; \
	rm -f -- "$$manifest"; \
	echo "removed the files listed in $$manifest"

# The library alone: libtarvik, its headers, the pkg-config and CMake package files. Needs
# only a C++ compiler, CMake and the Boost headers; make install-lib PREFIX=... installs it.
lib:
	$(MAKE) deps PACKAGES="$(LIB_PACKAGES)"
	cmake -S . -B $(LIB_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVIK_BUILD_TESTS=OFF -DTARVIK_BUILD_SIM=OFF \
	  -DTARVIK_BUILD_TOOLS=OFF -DTARVIK_BUILD_EXAMPLES=OFF -DTARVIK_BUILD_PYTHON=OFF -DTARVIK_BUILD_BENCH=OFF \
	  $(CMAKE_ARGS)
	cmake --build $(LIB_BUILD) -j $(JOBS)

install-lib: lib
	cmake --install $(LIB_BUILD) --prefix $(PREFIX)
	@if [ "$$(id -u)" = 0 ] && command -v ldconfig >/dev/null; then ldconfig; fi

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD) $(LIB_BUILD)
