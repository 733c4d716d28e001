# dhc: two commands set up everything on a fresh Debian machine.
#   make test   install what is missing, build in build/, run every test (Octave and Python included)
#   make demo   build and segment the bundled synthetic scene and the Landsat scene in data/; writes labels,
#               report, PNGs, every cut and the tree, and a georeferenced GeoTIFF label map

BUILD     ?= build
JOBS      ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The Python package is built for and tested with Debian's interpreter (numpy, pytest).
PYTHON    ?= /usr/bin/python3
DEB_PACKAGES := g++ cmake make libgtest-dev libbenchmark-dev libeigen3-dev libpng-dev octave liboctave-dev valgrind \
                python3-dev python3-numpy python3-pytest python3-setuptools python3-pip pybind11-dev python3-gdal \
                nlohmann-json3-dev libgdal-dev gdal-bin

.PHONY: all deps configure build test demo bench clean

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
OUT ?= out
demo: build
	@mkdir -p $(OUT)
	$(BUILD)/dhc-make-scene -o $(OUT)/scene.hraw --truth $(OUT)/truth.hraw
	$(BUILD)/dhc segment $(OUT)/scene.hraw -o $(OUT)/labels.hraw --report $(OUT)/report.txt --png $(OUT)/labels.png \
	  --levels $(OUT)/levels.hraw --tree $(OUT)/tree.json --tree-png $(OUT)/tree.png --tree-svg $(OUT)/tree.svg
	$(BUILD)/dhc segment data/L7_ETMs.tif -o $(OUT)/landsat_labels.tif --png $(OUT)/landsat_labels.png \
	  --set UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=6 --set UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05
	@echo
	@echo "scene:     $(abspath $(OUT))/scene.hraw (truth: $(abspath $(OUT))/truth.hraw)"
	@echo "label map: $(abspath $(OUT))/labels.hraw"
	@echo "report:    $(abspath $(OUT))/report.txt"
	@echo "picture:   $(abspath $(OUT))/labels.png"
	@echo "levels:    $(abspath $(OUT))/levels.hraw (band k: after k splits)"
	@echo "tree:      $(abspath $(OUT))/tree.json, $(abspath $(OUT))/tree.png, $(abspath $(OUT))/tree.svg"
	@echo "Landsat:   $(abspath $(OUT))/landsat_labels.tif (GeoTIFF, UTM zone 25S), picture $(abspath $(OUT))/landsat_labels.png"

bench: build
	@for b in $(BUILD)/bench/*_bench; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf $(BUILD)
