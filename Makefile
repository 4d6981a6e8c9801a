# SPDX-License-Identifier: Apache-2.0
# The front door. CMake and its presets do the building; see CMakePresets.json.

PYTHON := /usr/bin/python3
FILES = $(shell git ls-files '*.c' '*.cpp' '*.h')
export PORT RUN_DIR ONESHOT

.PHONY: help run test build install uninstall lint asan tsan sanitize soak differential fuzz mutants coverage bench clean

help:
	@echo 'make run       build all, start the gateway with the example directory, look something up'
	@echo '               PORT=, RUN_DIR=, and ONESHOT=1 to end after the look-ups'
	@echo 'make test      unit tests and end-to-end tests'
	@echo 'make build     build/release: the module, libvex, vexagent'
	@echo 'make install   the module, libvex, vexagent, the unit, documents: PREFIX= (/usr), DESTDIR='
	@echo 'make uninstall removes what the last make install put there'
	@echo 'make lint      the format, and what clang-tidy finds'
	@echo 'make sanitize  all tests under the sanitizers (asan, then tsan)'
	@echo 'make soak      everything at once for SOAK_SECONDS= (1200), and the long form of the'
	@echo '               tests of many requests; ZX_SEED= repeats a run, PRESET= chooses the build'
	@echo 'make differential  the gateway in the standard mode beside back-mdb with the same entries:'
	@echo '               QUESTIONS= (100000) to both, a twentieth on a domain; ZX_SEED= for other ones'
	@echo 'make fuzz      the fuzz targets, FUZZ_SECONDS= each (default 30)'
	@echo '               or FUZZ_FLAGS= as libFuzzer takes them, such as -runs=10000000'
	@echo 'make mutants   small changes to the code that no unit test notices, in ten minutes'
	@echo '               MUTANTS_FLAGS= as tools/mutants takes them, such as --minutes 0 --seed 2'
	@echo 'make coverage  the lines that the unit tests run, by folder: build/coverage/coverage.txt'
	@echo 'make bench     the gateway beside others, in a quarter of an hour: build/bench/results.md'
	@echo '               BENCH_FLAGS=--quick for a minute'
	@echo 'make clean     removes build/'

# A lone command, which make starts without a shell: its interruptions arrive.
# Only what it runs is built for it.
run: TARGETS := back_zanthedx vexagent
run: build
	@tools/run-gateway

# The tests of many requests run under the sanitizers too, with the servers alone
# built for them, beside the tests before.
test: build setup-clients
	@tools/run-tests release --load asan --load tsan
servers-%: TARGETS := back_zanthedx vexagent vex_load
servers-%: build-%
	@:

build: build-release

# Packages and slapd's headers first; each is done in no time when nothing is missing.
.PHONY: setup
setup:
	@tools/setup
	@tools/slapd-headers build/slapd

# What only developers of the gateway need besides.
.PHONY: setup-dev
setup-dev: setup
	@tools/setup tools/packages-dev.txt

# The programs of other people that `make test` runs against the gateway: unpacked, never
# installed.
.PHONY: setup-clients
setup-clients:
	@tools/unpack tools/packages-clients.txt build/clients

build-%: setup
	@test -f build/$*/build.ninja || cmake --preset $* > build/$*.log || { cat build/$*.log; exit 1; }
	@ninja -C build/$* $(TARGETS)

# cmake/Install.cmake says what goes where. PRESET chooses the build.
PRESET ?= release
PREFIX ?= /usr
install: TARGETS := back_zanthedx vex vexagent
install: build-$(PRESET)
	@grep -qx 'CMAKE_INSTALL_PREFIX:PATH=$(PREFIX)' build/$(PRESET)/CMakeCache.txt || \
	    cmake -DCMAKE_INSTALL_PREFIX='$(PREFIX)' build/$(PRESET) > build/$(PRESET).log || { cat build/$(PRESET).log; exit 1; }
	@DESTDIR='$(DESTDIR)' cmake --install build/$(PRESET) > build/$(PRESET)-install.log || { cat build/$(PRESET)-install.log; exit 1; }
	@echo 'Installed below $(DESTDIR)$(PREFIX). What to do next: $(PREFIX)/share/doc/zanthedx/docs/manual.md'

uninstall:
	@tools/uninstall build/$(PRESET)/install_manifest.txt '$(DESTDIR)'

lint: TARGETS := vex_protocol_generated
lint: setup-dev build-lint
	clang-format --dry-run -Werror $(FILES)
	printf '%s\n' $(filter %.c %.cpp,$(FILES)) | xargs -P "$$(nproc)" -n 4 clang-tidy --quiet -p build/lint

asan tsan: %: build-% setup-clients
	@tools/run-tests $*

sanitize: asan tsan

# Under a sanitizer: make soak PRESET=asan SOAK_SECONDS=300.
SOAK_SECONDS ?= 1200
soak: build-$(PRESET)
	@ZX_LONG=1 ZX_SCENARIO_SECONDS=$(SOAK_SECONDS) tools/run-tests $(PRESET) --only-load

# A part of it is in `make test`.
QUESTIONS ?= 100000
differential: build-$(PRESET)
	@ZX_BUILD=build/$(PRESET) ZX_QUESTIONS=$(QUESTIONS) $(PYTHON) -m pytest -q -rP tests/standard/test_differential.py tests/standard/test_differential_hosts.py tests/standard/test_differential_cached.py
	@ZX_BUILD=build/$(PRESET) ZX_QUESTIONS=$$(($(QUESTIONS) / 20)) $(PYTHON) -m pytest -q -rP tests/standard/test_differential_domain.py

# A small quarantine keeps the address sanitizer in the processor's caches; file
# descriptor 2 is what the code under test complains on, and is closed to it.
FUZZ_SECONDS ?= 30
FUZZ_FLAGS ?= -max_total_time=$(FUZZ_SECONDS)
FUZZ_ASAN := malloc_context_size=4:quarantine_size_mb=8:thread_local_quarantine_size_kb=64
build-fuzz: setup-dev
fuzz: TARGETS = $(notdir $(wildcard fuzz/corpus/*))
fuzz: build-fuzz
	@set -e; for corpus in fuzz/corpus/*; do \
	    target=$$(basename "$$corpus"); echo "== $$target"; mkdir -p "build/fuzz/found/$$target"; \
	    program=$$(find build/fuzz -name "$$target" -type f -perm -100); \
	    ASAN_OPTIONS=$(FUZZ_ASAN) "$$program" $(FUZZ_FLAGS) -rss_limit_mb=1024 -close_fd_mask=2 \
	        -verbosity=0 -print_final_stats=1 \
	        -artifact_prefix="build/fuzz/found/$$target/" "build/fuzz/found/$$target" "$$corpus"; \
	done

MUTANTS_FLAGS ?=
mutants: setup-dev build-apart
	@nice -n 10 $(PYTHON) tools/mutants $(MUTANTS_FLAGS)

# In a build of its own, whose programs count. It shows each line, too.
coverage: setup-dev build-coverage
	@nice -n 10 $(PYTHON) tools/coverage

# The contenders first, then the parts by themselves. BENCH_FLAGS are bench/run.py's.
BENCH_FLAGS ?=
bench: setup-dev
	@cmake --preset release -B build/bench -DZX_BENCH=ON > build/bench.log || { cat build/bench.log; exit 1; }
	@ninja -C build/bench ldap_load vex_roundtrip cache_bench translate_bench back_zanthedx vexagent
	@ZX_BUILD=build/bench $(PYTHON) bench/run.py $(BENCH_FLAGS)
	@set -e; for program in build/bench/bench/*_bench; do "$$program" --benchmark_min_time=0.2; done

clean:
	rm -rf build
