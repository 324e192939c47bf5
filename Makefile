# The commands a newcomer runs. Each one installs what the machine lacks,
# configures, builds and then does its job.
BUILD       ?= build
RELEASE     ?= build-release
ASAN        ?= build-asan
FUZZ        ?= build-fuzz
WINDOWS     ?= build-windows
FUZZ_TIME   ?= 60
PREFIX      ?= /usr/local
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps demo test bench test-asan fuzz install windows test-windows clean

all: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

deps:
	@scripts/install-deps

demo: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=OFF -DZAN_BENCH=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE) -j $(JOBS) --target zan zan_zan2 zan_cpu zan_gguf zan_llama zan_build gguf_gen
	@scripts/demo $(RELEASE)

test: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: deps
	@bench/install-deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=OFF -DZAN_BENCH=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE) -j $(JOBS)
	@bench/run $(RELEASE)

test-asan: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DZAN_SANITIZE=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build $(ASAN) -j $(JOBS)
	cd $(ASAN) && ctest --output-on-failure -j $(JOBS)

# zan into $(PREFIX)/bin and our plugins into $(PREFIX)/bin/plugins, where
# the installed zan finds them beside itself.
install: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE) -j $(JOBS) --target zan zan_zan2 zan_cpu zan_gguf zan_llama zan_build
	cmake --install $(RELEASE) --prefix $(PREFIX)

# libFuzzer runs of the JSON, ZAN2, GGUF and app container readers and the
# script compiler,
# FUZZ_TIME seconds each.
fuzz: deps
	@scripts/install-deps clang libclang-rt-14-dev
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZAN_FUZZ=ON \
	  -DZAN_TESTS=OFF -DZAN_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(FUZZ) -j $(JOBS) --target json_fuzz zan2_fuzz gguf_fuzz app_fuzz zans_fuzz zan2_seeds gguf_gen
	@scripts/fuzz $(FUZZ) $(FUZZ_TIME)

# zan.exe and the plugin DLLs for 64-bit Windows, cross-built with MinGW-w64
# into $(WINDOWS) (plugins in $(WINDOWS)/plugins), with the tests.
WINDOWS_DEPS = g++-mingw-w64-x86-64-posix wine64 xvfb xauth xdotool x11-apps
windows: deps
	@scripts/install-deps $(WINDOWS_DEPS)
	cmake -S . -B $(WINDOWS) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DCMAKE_BUILD_TYPE=Release \
	  -DZAN_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(WINDOWS) -j $(JOBS)

# The unit tests and every CLI case file against the Windows build, under
# wine with a virtual display.
test-windows: windows
	@scripts/test-windows $(WINDOWS) -j $(JOBS)

clean:
	rm -rf $(BUILD) $(RELEASE) $(ASAN) $(FUZZ) $(WINDOWS)
