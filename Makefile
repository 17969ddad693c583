# The front door. `make test` and `make demo` do all the set-up on a fresh machine.
BUILD       ?= build
BENCH_BUILD ?= build-bench
I386_BUILD  ?= $(BUILD)/i386
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-i386 package demo bench format clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

configure: deps $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The 32-bit x86 suite runs after the native one, or says why this machine cannot run it.
test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600
	scripts/test-i386 $(I386_BUILD) $(JOBS) $(CMAKE_FLAGS)

test-i386: deps
	scripts/test-i386 $(I386_BUILD) $(JOBS) $(CMAKE_FLAGS)

# Debian packages (libkorva0, libkorva-dev, korva) in $(BUILD).
package: build
	cmake --build $(BUILD) --target package

demo: build
	$(BUILD)/korva demo

bench: deps
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORVA_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	scripts/run-bench $(BENCH_BUILD)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(BENCH_BUILD)
