# Entry points for people and CI. Everything goes through CMake in $(BUILD).
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build test bench demo install clean

all: build

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	$(BUILD)/bench/tremor_bench
	bash bench/compare_ffmpeg.sh $(BUILD)

# Renders a generated sample clip and writes a contact sheet under demo/.
demo: build
	bash scripts/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD)
