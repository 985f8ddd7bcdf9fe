# The two set-up commands of the README:
#   make demo   installs what the build needs, builds, and runs the loopback demo
#   make test   installs what the build needs, builds, and runs the tests
JOBS ?= $(shell nproc)

.PHONY: setup release demo test asan tsan bench fuzz consumer format clean

setup:
	@./scripts/setup

release: setup
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

demo: release
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

consumer: release
	@./tests/consumer/run build/release

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
