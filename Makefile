# The front door. `make test` and `make demo` do all the set-up on a fresh machine.
BUILD       ?= build
BENCH_BUILD ?= build-bench
CLANG_BUILD ?= build-clang
FUZZ_BUILD  ?= build-fuzz
FUZZ_SECONDS ?= 10
ASAN_BUILD  ?= build-asan
TSAN_BUILD  ?= build-tsan
# Any report fails the run: leaks included, nothing recovers.
SANITIZER_ENV = ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1 \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
# The tests that run threads: namespace socket workers, the closer, the loop stopped from
# another thread, packets outliving their thread, the shared-memory tables, and the
# pressure cases (a sender thread, workers of a deleted namespace).
THREADED_TESTS = ^(NetnsUtils|DeferClose|Activity|PktLifetime|IntfNameOrder|Cairn|Pressure)
I386_BUILD  ?= $(BUILD)/i386
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-i386 check-clang fuzz check-asan check-tsan package demo bench format clean

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

# The library and the tool built by clang too, warnings as errors, so both compilers stay clean.
check-clang: deps
	cmake -S . -B $(CLANG_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-Werror \
	  -DKORVA_BUILD_TESTS=OFF -DKORVA_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(CLANG_BUILD) -j $(JOBS) --target Korva korva

# The whole suite and the demo under AddressSanitizer and UndefinedBehaviorSanitizer. The
# install tests build agents without the sanitizers, which cannot link these libraries.
check-asan: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DKORVA_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer" \
	  $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) --timeout 600 -E '^install_'
	$(SANITIZER_ENV) $(ASAN_BUILD)/korva demo

# The threaded tests under ThreadSanitizer.
check-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -G Ninja -DKORVA_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="-fsanitize=thread -fno-omit-frame-pointer" $(CMAKE_FLAGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target test_Korva test_Mox test_Cairn
	cd $(TSAN_BUILD) && $(SANITIZER_ENV) ctest --output-on-failure -j $(JOBS) --timeout 600 \
	  -R '$(THREADED_TESTS)'

# Every fuzz target, under AddressSanitizer and UndefinedBehaviorSanitizer, for FUZZ_SECONDS
# each, starting from its corpus in fuzz/corpus (seeds and every input that once failed).
# Built by clang with warnings as errors, the tool included, so it is also CI's clang build.
fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DKORVA_BUILD_FUZZ=ON \
	  -DKORVA_BUILD_TESTS=OFF -DKORVA_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -Werror" \
	  $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz-targets korva
	scripts/run-fuzz $(FUZZ_BUILD) $(FUZZ_SECONDS)

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
	rm -rf $(BUILD) $(BENCH_BUILD) $(CLANG_BUILD) $(FUZZ_BUILD) $(ASAN_BUILD) $(TSAN_BUILD)
