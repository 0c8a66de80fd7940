# Two-word entry points. Each one installs what is missing, configures and builds.
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
FUZZ_BUILD ?= build-fuzz
DEB_BUILD ?= build-deb
ROOT_COPY ?= $(BUILD)/demo-host

.PHONY: deps configure build demo test test-asan reliability bench fuzz fuzz-replay deb deb-install clean

deps:
	@./scripts/install-deps.sh

# The project's own builds treat warnings as errors (a packager's build does not by default).
configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCONFIGSTORE_WERROR=ON >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# The main job: a boot of a fresh copy of the sample host root. Builds only the command line.
demo: configure
	@cmake --build $(BUILD) -j $(JOBS) --target configstorectl
	@./scripts/demo.sh $(BUILD)/tools/configstorectl/configstorectl $(ROOT_COPY)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCONFIGSTORE_SANITIZE=ON -DCONFIGSTORE_WERROR=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# The figures of the fault sweeps, crash loop and hostile inputs (CONFIGSTORE_LONG=1: long versions).
reliability: build
	@./scripts/reliability-figures.sh $(BUILD)

# Benchmarks of the main jobs on generated big hosts, each beside its floor; writes the table.
bench: deps
	@./bench/run.sh $(BENCH_BUILD)

# libFuzzer targets (clang, ASan + UBSan): replay the seed corpus and fuzz each target briefly
# (CI), or fuzz for as long as FUZZ_SECONDS says.
fuzz-replay: deps
	@./fuzz/run.sh $(FUZZ_BUILD) replay
fuzz: deps
	@./fuzz/run.sh $(FUZZ_BUILD) fuzz

# The Debian packages (libconfigstore1, libconfigstore-dev, configstore-tools), built from a copy
# of the tree with the test suite off, checked by lintian; deb-install installs them here (CI).
deb: deps
	@./scripts/deb.sh build $(DEB_BUILD)
deb-install: deb
	@./scripts/deb.sh install $(DEB_BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD) $(DEB_BUILD)
