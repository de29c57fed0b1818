# Entry points of the project. `make test` and `make demo` work on a fresh Debian 12 machine:
# they install what is missing first.
BUILD ?= build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
CMAKE_FLAGS ?=
CTEST_FLAGS ?=

.PHONY: all deps build test sanitize tsan armhf-test bench install demo soak valgrind format clean

all: build

deps:
	@bash scripts/deps.sh base

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS) $(CTEST_FLAGS)

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

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVOK_BUILD_BENCH=ON -DVOK_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build build-bench -j$(JOBS)
	bash scripts/run-bench.sh build-bench

# Installs libraries, headers and pkg-config files under $(DESTDIR)$(PREFIX).
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD) --prefix $(PREFIX)

# A private bus, vok-powerd and the demo daemon for DEMO_SECONDS (default 10), then stopped.
demo: build
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

format:
	find include Src platform apps tests bench -name '*.[ch]' -o -name '*.cpp' | xargs -r clang-format -i

clean:
	rm -rf build build-asan build-tsan build-armhf build-bench build-install
