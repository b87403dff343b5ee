# Entry points for people and CI; the real build description is CMakeLists.txt.

BUILD    := build
JOBS     := $(shell nproc)
PREFIX   ?= /usr/local
# CI and developers build warning-free; pass WERROR=OFF to experiment.
WERROR   ?= ON

# cmake runs its own make; without this it would inherit our job-server
# flags and complain or fall back to a single job, and print every
# directory it enters.
NOMAKEENV := env -u MAKEFLAGS -u MFLAGS -u MAKELEVEL
CMAKE     := $(NOMAKEENV) cmake
CTEST     := $(NOMAKEENV) ctest

RELEASE  := $(BUILD)/release
DEBUG    := $(BUILD)/debug
SANITIZE := $(BUILD)/sanitize
FUZZ     := $(BUILD)/fuzz

# libFuzzer comes with clang; `make fuzz` runs each target this long.
FUZZ_PACKAGES := clang libclang-rt-14-dev
FUZZ_SECONDS  ?= 30

SANITIZER_ENV := ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:print_stacktrace=1 \
                 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

.PHONY: all deps release debug demo test sanitize fuzz bench install clean

all: release

deps:
	@sh cmake/install-deps.sh

# Configuring every time is cheap once the cache exists and makes sure the
# options given here are the ones in force.
release: deps
	$(CMAKE) -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DKIV_WERROR=$(WERROR)
	$(CMAKE) --build $(RELEASE) -j$(JOBS)

debug: deps
	$(CMAKE) -S . -B $(DEBUG) -DCMAKE_BUILD_TYPE=Debug -DKIV_WERROR=$(WERROR)
	$(CMAKE) --build $(DEBUG) -j$(JOBS)

demo: release
	@test -x $(RELEASE)/kiv-demo || { echo "no demo: examples/kiv-demo/ has no sources" >&2; exit 1; }
	$(RELEASE)/kiv-demo

test: release
	$(CTEST) --test-dir $(RELEASE) --output-on-failure -j2

sanitize: deps
	$(CMAKE) -S . -B $(SANITIZE) -DCMAKE_BUILD_TYPE=Debug -DKIV_WERROR=$(WERROR) \
	    -DKIV_SANITIZE=ON -DKIV_BUILD_BENCH=OFF
	$(CMAKE) --build $(SANITIZE) -j$(JOBS)
	$(SANITIZER_ENV) $(CTEST) --test-dir $(SANITIZE) --output-on-failure -j2

# kiv-fuzz-<Name> starts from the valid forms in fuzz/seeds/<Name>/ and keeps what it finds in
# build/fuzz/corpus/, so later runs start where this one ended.
fuzz:
	@sh cmake/install-deps.sh $(FUZZ_PACKAGES)
	$(NOMAKEENV) CC=clang-14 CXX=clang++-14 cmake -S fuzz -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build $(FUZZ) -j$(JOBS)
	@set -e; \
	for f in $(FUZZ)/kiv-fuzz-*; do \
	    name=$${f##*/kiv-fuzz-}; corpus=$(FUZZ)/corpus/$$name; mkdir -p "$$corpus"; \
	    echo "== $$f"; "$$f" -max_total_time=$(FUZZ_SECONDS) "$$corpus" fuzz/seeds/$$name; \
	done

bench: release
	@set -e; found=; \
	for b in $(RELEASE)/kiv-bench-*; do \
	    [ -x "$$b" ] || continue; found=1; \
	    echo "== $$b"; "$$b"; \
	done; \
	[ -n "$$found" ] || echo "no benchmarks: bench/ has no sources"

install: release
	$(CMAKE) --install $(RELEASE) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD)
