# Thin wrapper over CMake. Every target installs missing dependencies first.
BUILD   ?= build
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local/ardent
CMAKE_FLAGS ?=
CTEST_FLAGS ?=

.PHONY: all deps build demo test test-asan test-tsan bench fuzz package install clean

all: build

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

# Scans the bundled demo web root with the starter rules and prints the
# events. Builds only the agent, its modules and the staged examples.
demo: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS) --target ardent_runtime
	@bash scripts/demo.sh $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_FLAGS)

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer.
test-asan:
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DARDENT_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug"

# The queue, framework and messaging tests under ThreadSanitizer.
test-tsan: deps
	cmake -S . -B build-tsan -G Ninja -DARDENT_SANITIZE=thread -DCMAKE_BUILD_TYPE=Debug
	cmake --build build-tsan -j $(JOBS) --target tsan_tests
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -L tsan

bench: deps
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DARDENT_BUILD_BENCH=ON -DARDENT_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	bash bench/run.sh build-bench

# The libFuzzer targets of fuzz/ (clang, ASan+UBSan), each run for
# FUZZ_SECONDS from its seeds. Longer runs: fuzz/run.sh build-fuzz SECONDS [NAME...].
FUZZ_SECONDS ?= 30
fuzz: deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DARDENT_FUZZ=ON -DARDENT_SANITIZE=address,undefined -DARDENT_BUILD_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	bash fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# A Debian package of a Release build: build-package/ardent-agent_<version>_<arch>.deb.
package: deps
	cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DARDENT_BUILD_TESTS=OFF \
	  -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build build-package -j $(JOBS) --target ardent_runtime
	cd build-package && cpack -G DEB

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-package
