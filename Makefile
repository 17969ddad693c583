# The front door. `make test` and `make demo` do all the set-up on a fresh machine.
BUILD       ?= build
BENCH_BUILD ?= build-bench
CLANG_BUILD ?= build-clang
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test check-clang package demo bench format clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

configure: deps $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

# The library and the tool built by clang too, warnings as errors, so both compilers stay clean.
check-clang: deps
	cmake -S . -B $(CLANG_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-Werror \
	  -DKORVA_BUILD_TESTS=OFF -DKORVA_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(CLANG_BUILD) -j $(JOBS) --target Korva korva

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
	rm -rf $(BUILD) $(BENCH_BUILD) $(CLANG_BUILD)
