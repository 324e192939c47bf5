# The commands a newcomer runs. Each one installs what the machine lacks,
# configures, builds and then does its job.
BUILD       ?= build
RELEASE     ?= build-release
ASAN        ?= build-asan
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps demo test bench test-asan clean

all: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

deps:
	@scripts/install-deps

demo: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE) -j $(JOBS) --target zan
	@scripts/demo $(RELEASE)/zan

test: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DZAN_TESTS=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build $(RELEASE) -j $(JOBS)
	@bench/run $(RELEASE)

test-asan: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DZAN_SANITIZE=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build $(ASAN) -j $(JOBS)
	cd $(ASAN) && ctest --output-on-failure -j $(JOBS)

clean:
	rm -rf $(BUILD) $(RELEASE) $(ASAN)
