# Entry points of the project. `make test` and `make demo` work on a fresh Debian 12 machine:
# they install what is missing first.
BUILD ?= build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
CMAKE_FLAGS ?=
CTEST_FLAGS ?=
FUZZ_SECONDS ?= 60
# Seconds per fuzz harness in `make test` (0 skips them).
FUZZ_TEST_SECONDS ?= 5

.PHONY: all deps build test sanitize tsan armhf-test bench bench-peers install demo soak valgrind \
	format clean deb deb-host deb-armhf fuzz fuzz-run docs trace-picture

all: build

deps:
	@bash scripts/deps.sh base

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS) $(CTEST_FLAGS)
	@if [ "$(FUZZ_TEST_SECONDS)" = 0 ]; then :; \
	elif bash tests/fuzz/run-fuzzers.sh --check; then \
	  $(MAKE) --no-print-directory fuzz-run FUZZ_SECONDS=$(FUZZ_TEST_SECONDS); \
	else \
	  echo "make test: clang-14 with libFuzzer is not installed, fuzz harnesses skipped" \
	       "(bash scripts/deps.sh fuzz installs it)"; \
	fi

# AddressSanitizer + UndefinedBehaviorSanitizer build of the library and the whole suite.
sanitize: deps
	cmake -S . -B build-asan -DVOK_SANITIZE=address,undefined $(CMAKE_FLAGS)
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS) $(CTEST_FLAGS)

# ThreadSanitizer build and the whole suite.
tsan: deps
	cmake -S . -B build-tsan -DVOK_SANITIZE=thread $(CMAKE_FLAGS)
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  ctest --output-on-failure -j$(JOBS) $(CTEST_FLAGS)

# Cross build for armhf and the whole suite under qemu-arm (the sysroot is made on first use).
armhf-test:
	@bash scripts/deps.sh base armhf
	sysroot=$$(bash scripts/armhf-sysroot.sh) && \
	cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf-toolchain.cmake \
	  -DVOK_ARMHF_SYSROOT=$$sysroot $(CMAKE_FLAGS)
	cmake --build build-armhf -j$(JOBS)
	cd build-armhf && VOK_DEATH_TEST_STYLE=fast ctest --output-on-failure -j$(JOBS) $(CTEST_FLAGS)

# Every libFuzzer harness of tests/fuzz for FUZZ_SECONDS each, in a clang build of its own with
# ASan and UBSan; prints the executions per harness.
fuzz: deps
	@bash scripts/deps.sh fuzz
	@$(MAKE) --no-print-directory fuzz-run

fuzz-run:
	cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DVOK_FUZZ=ON $(CMAKE_FLAGS)
	cmake --build build-fuzz -j$(JOBS) --target vok_fuzzers
	bash tests/fuzz/run-fuzzers.sh build-fuzz $(FUZZ_SECONDS)

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVOK_BUILD_BENCH=ON -DVOK_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build build-bench -j$(JOBS)
	bash scripts/run-bench.sh build-bench

# vok beside peer frameworks (eventfd, sd-event, Qt 5, CAF, GLib, sd-bus, sdbus-c++), pinned to
# one CPU and unpinned; tables and charts go to build-peers/results. PEER_REPETITIONS (default 5).
bench-peers:
	@bash scripts/deps.sh base peers
	cmake -S . -B build-peers -DCMAKE_BUILD_TYPE=Release -DVOK_BUILD_PEERS=ON -DVOK_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build build-peers -j$(JOBS)
	bash scripts/bench-peers.sh build-peers $(PEER_REPETITIONS)

# Installs libraries, headers and pkg-config files under $(DESTDIR)$(PREFIX).
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)

# Every allocation-failure sweep of tests/Oom at every allocation point (`make test` sweeps a
# sample of the larger ones).
.PHONY: oom
oom: build
	cd $(BUILD)/tests/Oom && VOK_OOM_FULL=1 G_SLICE=always-malloc ./OomTest

# A private bus, vok-powerd and the demo daemon for DEMO_SECONDS (default 10), then stopped.
# Installs and builds only what the demo runs: the libraries, vok-demo, vok-powerd and vokctl.
demo:
	@bash scripts/deps.sh demo
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target vok-demo vok-powerd vokctl
	bash scripts/demo.sh $(BUILD)

# The demo under load for SOAK_SECONDS (default 600) while vok-powerd and the bus daemon are killed
# and started again; fails when the demo's memory, descriptors or threads grow, a process dies or
# an alarm is missed, doubled or early. See scripts/soak.sh for the knobs.
soak: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target vok-demo vok-powerd
	bash scripts/soak.sh $(BUILD)

# The suite's test programs under valgrind's memcheck: no error and no definite leak.
valgrind: deps
	@bash scripts/deps.sh valgrind
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)
	bash scripts/valgrind.sh $(BUILD)

# Debian packages libvok0, libvok-dev and vok-tools, made by CPack from a build installed under
# /usr: build-deb/ for this machine, build-deb-armhf/ for armhf (`make deb ARCH=armhf` or
# `make deb-armhf`, cross-built against the sysroot of armhf-test).
ARCH ?=
ifeq ($(ARCH),armhf)
deb: deb-armhf
else
deb: deb-host
endif

deb-host:
	@bash scripts/deps.sh base packaging
	cmake -S . -B build-deb -DCMAKE_INSTALL_PREFIX=/usr -DVOK_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build build-deb -j$(JOBS)
	cd build-deb && cpack

# GNUInstallDirs picks the multiarch library directory only for native builds: it is named here.
# dpkg-shlibdeps takes the armhf libraries and what their packages declare from the sysroot.
deb-armhf:
	@bash scripts/deps.sh base armhf packaging
	sysroot=$$(bash scripts/armhf-sysroot.sh) && \
	cmake -S . -B build-deb-armhf -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf-toolchain.cmake \
	  -DVOK_ARMHF_SYSROOT=$$sysroot -DCMAKE_INSTALL_PREFIX=/usr \
	  -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf -DVOK_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build build-deb-armhf -j$(JOBS)
	sysroot=$$(bash scripts/armhf-sysroot.sh) && \
	bash cmake/sysroot-dpkg-db.sh $$sysroot build-deb-armhf/sysroot-dpkg && \
	cd build-deb-armhf && DEB_HOST_ARCH=armhf DPKG_ADMINDIR=$(CURDIR)/build-deb-armhf/sysroot-dpkg cpack

# doc/demo-trace.png, the README's picture: 3 s of vok-demo recorded with vokctl and drawn by
# scripts/trace-to-svg.py and rsvg-convert.
trace-picture:
	@bash scripts/deps.sh demo picture
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target vok-demo vok-powerd vokctl
	bash scripts/trace-picture.sh $(BUILD) doc/demo-trace.png

# HTML API documentation of the public headers in build-docs/html (main page: the README). Fails
# when Doxygen finds an undocumented class, function or member (scripts/docs.sh).
docs:
	@bash scripts/deps.sh docs
	bash scripts/docs.sh build-docs

format:
	find include Src platform apps tests bench -name '*.[ch]' -o -name '*.cpp' | xargs -r clang-format -i

clean:
	rm -rf build build-asan build-tsan build-armhf build-bench build-peers build-install \
	  build-deb build-deb-armhf build-fuzz build-docs
