# Two set-up commands for a fresh machine: `make demo` and `make test`.
JOBS ?= 2
GEN := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CMAKE_FLAGS ?=
# ccache, when present, makes the several builds (release, sanitizers) cheap to repeat.
CCACHE := $(shell command -v ccache >/dev/null 2>&1 && echo "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache")

.PHONY: all build build-asan build-tsan test test-release test-asan test-tsan test-install package demo bench fuzz clean deps

all: build

deps:
	@sh .ci/deps.sh

# The release build also compiles the benchmarks so that they never rot.
build:
	cmake -S . -B build/release $(GEN) -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=ON -DKV_BUILD_BENCH=ON $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/release -j $(JOBS)

build-asan:
	cmake -S . -B build/asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DKV_SANITIZE=ON -DKV_BUILD_TESTS=ON $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/asan -j $(JOBS)

# ThreadSanitizer, for the suites that run threads beside each other (the
# transport's receive threads, the driver's callers, several processes); the
# list is KV_TSAN_TESTS in cmake/KvTesting.cmake.  No suppression file.
build-tsan:
	cmake -S . -B build/tsan $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_TSAN=ON -DKV_BUILD_TESTS=ON $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/tsan -j $(JOBS)

test-tsan: build-tsan
	cd build/tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS)

test-release: build
	cd build/release && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

test: deps
	$(MAKE) test-release
	$(MAKE) test-asan
	$(MAKE) test-tsan
	$(MAKE) test-install
	$(MAKE) fuzz

# The Debian packages: their own tree, installed under /usr, without tests.
package: deps
	cmake -S . -B build/package $(GEN) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DKV_BUILD_TESTS=OFF $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/package -j $(JOBS)
	cd build/package && cpack -G DEB

# The installed tree and the packages as a user gets them.
test-install: package
	@bash tests/install/run.sh build/package

fuzz:
	@sh fuzz/run.sh

demo: deps
	cmake -S . -B build/release $(GEN) -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=ON $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/release -j $(JOBS) --target tcpvxi tcpvxi-host tcpvxi-bridge-sim
	@bash tools/demo.sh build/release

bench: deps
	cmake -S . -B build/bench $(GEN) -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=ON $(CCACHE) $(CMAKE_FLAGS)
	cmake --build build/bench -j $(JOBS)
	@sh bench/run.sh build/bench

clean:
	rm -rf build
