# dhc: two commands set up everything on a fresh Debian machine.
#   make test   install what is missing, build in build/, run every test (Octave and Python included)
#   make demo   build and segment the bundled synthetic scene and the Landsat scene in data/; writes labels,
#               report, PNGs, every cut and the tree, a georeferenced GeoTIFF label map and out/landsat.html
#   make deb    Debian packages dhc (tool, Python package, libraries) and dhc-octave in DEB_BUILD/
#   make test-sanitize   every test again, built with AddressSanitizer + UBSan in build-asan/
#   make fuzz   build the libFuzzer targets (clang) in build-fuzz/ and run each for FUZZ_SECONDS
#   make coverage   line coverage of src/driver by the driver's tests (gcc --coverage, gcov) in build-cov/

BUILD     ?= build
JOBS      ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The Python package is built for and tested with Debian's interpreter (numpy, pytest).
PYTHON    ?= /usr/bin/python3
DEB_PACKAGES := g++ cmake make libgtest-dev libbenchmark-dev libeigen3-dev libpng-dev octave liboctave-dev valgrind \
                python3-dev python3-numpy python3-pytest python3-setuptools python3-pip pybind11-dev python3-gdal \
                nlohmann-json3-dev libgdal-dev gdal-bin librsvg2-dev libcairo2-dev fonts-dejavu-core chromium \
                clang-14 libclang-rt-14-dev dpkg-dev python3-venv python3-wheel python3-dask python3-distributed python3-sklearn

.PHONY: all deps configure build test demo deb bench clean test-sanitize fuzz-build fuzz coverage

all: build

# Installs the Debian packages the project needs, only those missing, only as root.
deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:$$missing"; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null || exit 1; \
	  else \
	    echo "Missing Debian packages:$$missing (run as root, or install them)"; exit 1; \
	  fi; \
	fi

configure: deps
	cmake -S . -B $(BUILD) -DPython3_EXECUTABLE=$(PYTHON) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Generates the synthetic 4-band scene (four classes, 256 x 256) into out/,
# segments it with the default configuration and writes labels, report, picture,
# the cuts of the tree (one band per split) and the tree as JSON and as pictures.
# Builds only the two programs it runs.
OUT ?= out
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target dhc_tool dhc_make_scene
	@mkdir -p $(OUT)
	$(BUILD)/dhc-make-scene -o $(OUT)/scene.hraw --truth $(OUT)/truth.hraw
	$(BUILD)/dhc segment $(OUT)/scene.hraw -o $(OUT)/labels.hraw --report $(OUT)/report.txt --png $(OUT)/labels.png \
	  --levels $(OUT)/levels.hraw --tree $(OUT)/tree.json --tree-png $(OUT)/tree.png --tree-svg $(OUT)/tree.svg
	$(BUILD)/dhc segment data/L7_ETMs.tif -o $(OUT)/landsat_labels.tif --png $(OUT)/landsat_labels.png \
	  --tree-png $(OUT)/landsat_tree.png --tree-svg $(OUT)/landsat_tree.svg --html $(OUT)/landsat.html
	@echo
	@echo "scene:     $(abspath $(OUT))/scene.hraw (truth: $(abspath $(OUT))/truth.hraw)"
	@echo "label map: $(abspath $(OUT))/labels.hraw"
	@echo "report:    $(abspath $(OUT))/report.txt"
	@echo "picture:   $(abspath $(OUT))/labels.png"
	@echo "levels:    $(abspath $(OUT))/levels.hraw (band k: after k splits)"
	@echo "tree:      $(abspath $(OUT))/tree.json, $(abspath $(OUT))/tree.png, $(abspath $(OUT))/tree.svg"
	@echo "Landsat:   $(abspath $(OUT))/landsat_labels.tif (GeoTIFF, UTM zone 25S), picture $(abspath $(OUT))/landsat_labels.png"
	@echo "           tree $(abspath $(OUT))/landsat_tree.png (.svg); report $(abspath $(OUT))/landsat.html (open it in a browser)"

# Debian packages built from a tree of their own (installed under /usr, no
# tests or benchmarks): DEB_BUILD/dhc_VERSION_ARCH.deb (the tool, its man page
# and bash completion, the Python package for $(PYTHON), the libraries,
# headers and CMake package config) and dhc-octave_VERSION_ARCH.deb.
DEB_BUILD ?= build-deb
deb: deps
	cmake -S . -B $(DEB_BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DPython3_EXECUTABLE=$(PYTHON) \
	  -DDHC_BUILD_TESTS=OFF -DDHC_BUILD_BENCH=OFF -DDHC_PYTHON=ON
	cmake --build $(DEB_BUILD) -j $(JOBS)
	cd $(DEB_BUILD) && cpack -G DEB
	@ls -1 $(abspath $(DEB_BUILD))/*.deb

# The whole suite (Octave tests included, with the ASan runtime preloaded into
# Octave) built with -fsanitize=address,undefined; any report fails its test.
ASAN_BUILD ?= build-asan
test-sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -DPython3_EXECUTABLE=$(PYTHON) $(CMAKE_ARGS) -DDHC_SANITIZE=ON -DDHC_BUILD_BENCH=OFF -DDHC_PYTHON=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# libFuzzer targets (fuzz/): each runs FUZZ_SECONDS on its committed seeds plus
# what earlier runs found (FUZZ_BUILD/corpus); findings go to FUZZ_BUILD/findings,
# each target's log to FUZZ_BUILD/logs.  Fails when any target finds something.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= hraw ini_parser ini_check command_line run raster
FUZZ_FLAGS   ?=

fuzz-build: deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDHC_FUZZ=ON \
	  -DDHC_BUILD_TESTS=OFF -DDHC_BUILD_BENCH=OFF -DDHC_BUILD_TOOLS=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

fuzz: fuzz-build
	@mkdir -p $(FUZZ_BUILD)/logs $(FUZZ_BUILD)/findings; failed=""; \
	for t in $(FUZZ_TARGETS); do \
	  mkdir -p $(FUZZ_BUILD)/corpus/$$t; \
	  case $$t in ini_parser|ini_check) dict=-dict=fuzz/ini.dict;; command_line) dict=-dict=fuzz/command_line.dict;; *) dict=;; esac; \
	  case $$t in run) timeout=120;; *) timeout=10;; esac; \
	  echo "fuzz: $$t for $(FUZZ_SECONDS) s"; \
	  if $(FUZZ_BUILD)/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -timeout=$$timeout -rss_limit_mb=2048 \
	       -max_len=4096 -print_final_stats=1 -artifact_prefix=$(FUZZ_BUILD)/findings/$$t- $$dict $(FUZZ_FLAGS) \
	       $(FUZZ_BUILD)/corpus/$$t fuzz/corpus/$$t > $(FUZZ_BUILD)/logs/$$t.log 2>&1; then \
	    grep -E "^#[0-9]+[[:space:]]+DONE" $(FUZZ_BUILD)/logs/$$t.log | tail -1; \
	    grep -E "^stat::number_of_executed_units" $(FUZZ_BUILD)/logs/$$t.log; \
	  else \
	    failed="$$failed $$t"; tail -40 $(FUZZ_BUILD)/logs/$$t.log; \
	  fi; \
	done; \
	if [ -n "$$failed" ]; then echo "fuzz: findings in:$$failed (see $(FUZZ_BUILD)/findings)"; exit 1; fi

# Line coverage of src/driver by the driver's test program, per file and in
# total, from gcov's counts (a Debug build instrumented with --coverage).
COV_BUILD ?= build-cov
coverage: deps
	cmake -S . -B $(COV_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -O0" \
	  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DDHC_BUILD_BENCH=OFF -DDHC_PYTHON=OFF
	cmake --build $(COV_BUILD) -j $(JOBS) --target dhc_driver_tests
	find $(COV_BUILD) -name '*.gcda' -delete
	cd $(COV_BUILD)/tests && env -u DHC_TEST_TMP ./dhc_driver_tests > /dev/null
	cd $(COV_BUILD)/CMakeFiles/dhc_driver.dir/src/driver && gcov -n -o . *.gcda 2>/dev/null | \
	  awk -F"'" '/^File / { file = $$2; next } \
	    /^Lines executed/ && file ~ /src\/driver\/[^\/]*\.cpp$$/ { \
	      split($$0, f, /[:% ]+/); n = f[5]; hit += f[3] * n / 100; total += n; \
	      printf "%-28s %6.2f%% of %d lines\n", substr(file, index(file, "src/driver/") + 11), f[3], n } \
	    /^Lines executed/ { file = "" } \
	    END { printf "src/driver: %.2f%% of %d lines\n", 100 * hit / total, total }'

bench: build
	@for b in $(BUILD)/bench/*_bench; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(DEB_BUILD) $(COV_BUILD)
