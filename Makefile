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

RELEASE    := $(BUILD)/release
DEBUG      := $(BUILD)/debug
SANITIZE   := $(BUILD)/sanitize
FUZZ       := $(BUILD)/fuzz
RELEASE32  := $(BUILD)/release32
SANITIZE32 := $(BUILD)/sanitize32

# The product's own target, 32-bit x86: the host compiler with -m32 (g++-multilib) and Debian's
# i386 libraries through multiarch.
PACKAGES_32  := g++-multilib lib32z1-dev libgtest-dev:i386 libgmock-dev:i386 libbenchmark-dev:i386
TOOLCHAIN_32 := -DCMAKE_TOOLCHAIN_FILE=cmake/i386-linux-gnu.cmake

# clang 14 and its sanitizer runtimes (libFuzzer among them) for `make fuzz` and `make sanitize32`,
# so that the second compiler builds every source too.
CLANG_PACKAGES := clang libclang-rt-14-dev
CLANG          := -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14
# `make fuzz` runs each target this long.
FUZZ_SECONDS   ?= 30

SANITIZER_ENV := ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:print_stacktrace=1 \
                 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1

# The sources `make format` formats and CI checks: every C++ file git tracks or would track.
CLANG_FORMAT  := clang-format-14
FORMAT_FILES   = $(shell git ls-files --cached --others --exclude-standard '*.h' '*.cpp')

.PHONY: all deps deps32 release release32 debug demo test test32 sanitize sanitize32 fuzz \
        bench bench32 format format-check install clean

all: release

deps:
	@sh cmake/install-deps.sh

deps32:
	@sh cmake/install-deps.sh $(PACKAGES_32)

# Configuring every time is cheap once the cache exists and makes sure the
# options given here are the ones in force.
release: deps
	$(CMAKE) -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DKIV_WERROR=$(WERROR)
	$(CMAKE) --build $(RELEASE) -j$(JOBS)

release32: deps32
	$(CMAKE) -S . -B $(RELEASE32) $(TOOLCHAIN_32) -DCMAKE_BUILD_TYPE=Release -DKIV_WERROR=$(WERROR)
	$(CMAKE) --build $(RELEASE32) -j$(JOBS)

debug: deps
	$(CMAKE) -S . -B $(DEBUG) -DCMAKE_BUILD_TYPE=Debug -DKIV_WERROR=$(WERROR)
	$(CMAKE) --build $(DEBUG) -j$(JOBS)

demo: release
	@test -x $(RELEASE)/kiv-demo || { echo "no demo: examples/kiv-demo/ has no sources" >&2; exit 1; }
	$(RELEASE)/kiv-demo

test: release
	$(CTEST) --test-dir $(RELEASE) --output-on-failure -j2

test32: release32
	$(CTEST) --test-dir $(RELEASE32) --output-on-failure -j2

# $(call sanitized,<build dir>,<extra cmake options>)
define sanitized
	$(CMAKE) -S . -B $(1) $(2) -DCMAKE_BUILD_TYPE=Debug -DKIV_WERROR=$(WERROR) \
	    -DKIV_SANITIZE=ON -DKIV_BUILD_BENCH=OFF
	$(CMAKE) --build $(1) -j$(JOBS)
	$(SANITIZER_ENV) $(CTEST) --test-dir $(1) --output-on-failure -j2
endef

sanitize: deps
	$(call sanitized,$(SANITIZE))

# On the product's target with clang, so that each compiler builds every source for it.
sanitize32: deps32
	@sh cmake/install-deps.sh $(CLANG_PACKAGES)
	$(call sanitized,$(SANITIZE32),$(TOOLCHAIN_32) $(CLANG))

# kiv-fuzz-<Name> starts from the valid forms in fuzz/seeds/<Name>/ and keeps what it finds in
# build/fuzz/corpus/, so later runs start where this one ended.
fuzz:
	@sh cmake/install-deps.sh $(CLANG_PACKAGES)
	$(NOMAKEENV) CC=clang-14 CXX=clang++-14 cmake -S fuzz -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(CMAKE) --build $(FUZZ) -j$(JOBS)
	@set -e; \
	for f in $(FUZZ)/kiv-fuzz-*; do \
	    name=$${f##*/kiv-fuzz-}; corpus=$(FUZZ)/corpus/$$name; mkdir -p "$$corpus"; \
	    echo "== $$f"; "$$f" -max_total_time=$(FUZZ_SECONDS) "$$corpus" fuzz/seeds/$$name; \
	done

# $(call benchmarks,<build dir>)
define benchmarks
	@set -e; found=; \
	for b in $(1)/kiv-bench-*; do \
	    [ -x "$$b" ] || continue; found=1; \
	    echo "== $$b"; "$$b"; \
	done; \
	[ -n "$$found" ] || echo "no benchmarks: bench/ has no sources"
endef

bench: release
	$(call benchmarks,$(RELEASE))

bench32: release32
	$(call benchmarks,$(RELEASE32))

format:
	@sh cmake/install-deps.sh $(CLANG_FORMAT)
	@echo "$(CLANG_FORMAT) -i: $(words $(FORMAT_FILES)) files"
	@$(CLANG_FORMAT) -i $(FORMAT_FILES)

# Fails, naming the places, when a source is not formatted as .clang-format says.
format-check:
	@sh cmake/install-deps.sh $(CLANG_FORMAT)
	@echo "$(CLANG_FORMAT) --dry-run: $(words $(FORMAT_FILES)) files"
	@$(CLANG_FORMAT) --dry-run --Werror $(FORMAT_FILES)

install: release
	$(CMAKE) --install $(RELEASE) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD)
