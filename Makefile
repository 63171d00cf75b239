# Entry points for people and CI. Everything goes through CMake in $(BUILD).
BUILD ?= build
JOBS  ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps configure build test sanitize tsan fuzz oclgrind bench demo install package clean

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

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer,
# in a build folder of its own (CUDA as the driver path alone, PTX from clang
# without the toolkit: its tests run against a stand-in driver, while the
# runtime the stand-in hosts' CUDA devices need is left out; the frei0r filter
# and the MLT service too: they run only inside FFmpeg and melt, which load no
# sanitizer runtime); any report fails the run; no man pages, which would run
# the sanitized programs at build time, outside the tests. A refused
# allocation comes back null, as without sanitizers, so the effect's own
# handling of it runs.
SAN_FLAGS = -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all
sanitize: deps
	cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_DISABLE_FIND_PACKAGE_CUDAToolkit=ON -DTD_BUILD_BENCH=OFF -DTD_BUILD_FREI0R=OFF -DTD_BUILD_MLT=OFF -DTD_BUILD_WINDOWS=OFF -DTD_BUILD_MAN=OFF \
	  "-DCMAKE_CXX_FLAGS=$(SAN_FLAGS)" "-DCMAKE_C_FLAGS=$(SAN_FLAGS)" "-DCMAKE_EXE_LINKER_FLAGS=$(SAN_FLAGS)" \
	  "-DCMAKE_SHARED_LINKER_FLAGS=$(SAN_FLAGS)" "-DCMAKE_MODULE_LINKER_FLAGS=$(SAN_FLAGS)"
	cmake --build build-sanitize -j $(JOBS)
	cd build-sanitize && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1 \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/lsan.supp:print_suppressions=0 ctest --output-on-failure -j $(JOBS)

# The threaded cases under ThreadSanitizer: the host rendering several frames
# at once on one device, tremor-render, whose every run decodes, renders
# and encodes on threads of its own, and the engine rendering on two threads.
TSAN_FLAGS = -fsanitize=thread
tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTD_WITH_CUDA=OFF -DTD_BUILD_BENCH=OFF -DTD_BUILD_FREI0R=OFF -DTD_BUILD_MLT=OFF -DTD_BUILD_WINDOWS=OFF \
	  "-DCMAKE_CXX_FLAGS=$(TSAN_FLAGS)" "-DCMAKE_C_FLAGS=$(TSAN_FLAGS)" "-DCMAKE_EXE_LINKER_FLAGS=$(TSAN_FLAGS)" \
	  "-DCMAKE_SHARED_LINKER_FLAGS=$(TSAN_FLAGS)" "-DCMAKE_MODULE_LINKER_FLAGS=$(TSAN_FLAGS)"
	cmake --build build-tsan -j $(JOBS) --target TremorDistiller tremor-render test_ae_render test_tremor_render test_engine
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 suppressions=$(CURDIR)/tests/sanitizers/tsan.supp" \
	  ctest --output-on-failure -j $(JOBS) -R 'Threaded|TremorRender|Engine\.'

# Each libFuzzer target for FUZZ_SECONDS under ASan and UBSan, clang-built in
# a folder of its own, from its seed inputs; a crash fails the run and leaves
# the input that caused it in build-fuzz/.
FUZZ_SECONDS ?= 30
FUZZ_TARGETS = fuzz_frame_stack fuzz_inputs
FUZZ_FLAGS = -fsanitize=address,undefined,fuzzer-no-link -fno-omit-frame-pointer -fno-sanitize-recover=all
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTD_WITH_CUDA=OFF \
	  -DTD_BUILD_TESTS=OFF -DTD_BUILD_BENCH=OFF -DTD_BUILD_FUZZ=ON -DTD_BUILD_FREI0R=OFF -DTD_BUILD_MLT=OFF -DTD_BUILD_WINDOWS=OFF \
	  "-DCMAKE_CXX_FLAGS=$(FUZZ_FLAGS)" "-DCMAKE_C_FLAGS=$(FUZZ_FLAGS)" \
	  "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined"
	cmake --build build-fuzz -j $(JOBS) --target $(FUZZ_TARGETS)
	cd build-fuzz && for t in $(FUZZ_TARGETS); do \
	  mkdir -p corpus/$$t && \
	  TD_MODULE_PATH=$(CURDIR)/build-fuzz/TremorDistiller.so ASAN_OPTIONS=detect_leaks=1 tests/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -timeout=20 -artifact_prefix=$$t- \
	    corpus/$$t $(CURDIR)/tests/fuzz/seeds/$$t || exit 1; done

# Every kernel path on Oclgrind's simulated device (tests/oclgrind/run.sh):
# small tremor-render renders and the device scene tests, with its memory,
# API and data-race checks; any report fails the run. OCLGRIND_TESTS picks the
# scene tests (both forms take about 20 minutes on a 2-core machine).
OCLGRIND_TESTS ?= DeviceRender.*/opencl*
oclgrind: build
	bash tests/oclgrind/run.sh $(BUILD) '$(OCLGRIND_TESTS)'

bench: build
	$(BUILD)/bench/tremor_bench
	bash bench/compare_ffmpeg.sh $(BUILD)
	bash bench/compare_mlt.sh $(BUILD)

# Renders a generated sample clip and writes a contact sheet under demo/. It
# needs the renderer and the module (and builds the frei0r filter beside them):
# its own packages (no Wine, mingw, clang or test frameworks) and its own build
# folder, without the tests, benchmarks or the Windows module.
DEMO_BUILD ?= build-demo
demo:
	@bash scripts/install-deps.sh demo
	cmake -S . -B $(DEMO_BUILD) $(CMAKE_FLAGS) -DTD_BUILD_TESTS=OFF -DTD_BUILD_BENCH=OFF -DTD_BUILD_WINDOWS=OFF
	cmake --build $(DEMO_BUILD) -j $(JOBS) --target tremor-render TremorDistiller tremor_distiller
	bash scripts/demo.sh $(DEMO_BUILD)

install: build
	cmake --install $(BUILD)

# The Debian package of everything `make install` installs, built for /usr in
# a folder of its own (tremor-render finds the module under the prefix it was
# built for): $(PACKAGE_BUILD)/tremor-distiller_VERSION_ARCH.deb.
PACKAGE_BUILD ?= build-package
package: deps
	cmake -S . -B $(PACKAGE_BUILD) $(CMAKE_FLAGS) -DCMAKE_INSTALL_PREFIX=/usr -DTD_BUILD_TESTS=OFF -DTD_BUILD_BENCH=OFF -DTD_BUILD_WINDOWS=OFF
	cmake --build $(PACKAGE_BUILD) -j $(JOBS)
	cd $(PACKAGE_BUILD) && cpack -G DEB

clean:
	rm -rf $(BUILD)
