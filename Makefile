# The two set-up commands of the README:
#   make demo   installs what the build needs, builds, and runs the loopback demo
#   make test   installs what the build needs, builds, and runs the tests
JOBS ?= $(shell nproc)
# Seconds each fuzz target runs under libFuzzer in `make fuzz`.
FUZZ_SECONDS ?= 60

.PHONY: setup setup-build release demo test asan tsan bench fuzz consumer format clean

setup:
	@./scripts/setup

setup-build:
	@./scripts/setup --build

release: setup
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

# The demo needs the tool only: a fresh machine need not install the tests' packages nor compile
# the tests to see it run.
demo: setup-build
	@cmake --preset release -DLMKIT_BUILD_TESTS=OFF >/dev/null
	@cmake --build --preset release -j $(JOBS) --target lmkit_tool
	@./build/release/tools/lmkit/lmkit demo

test: release
	@ctest --preset release

asan: setup
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan

tsan: setup
	@cmake --preset tsan >/dev/null
	@cmake --build --preset tsan -j $(JOBS) --target lmkit_concurrency_tests
	@ctest --preset tsan

bench: setup
	@cmake --preset release -DLMKIT_BUILD_BENCH=ON >/dev/null
	@cmake --build --preset release -j $(JOBS)
	@./bench/run build/release

fuzz: setup
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@./fuzz/run build/fuzz $(FUZZ_SECONDS)

consumer: release
	@./tests/consumer/run build/release

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
