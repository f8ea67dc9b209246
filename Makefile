# The two commands of the README: `make run` and `make test`. Both install what is missing first.
BUILD ?= build
ARGS ?=
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
ifeq ($(CI),true)
CMAKE_FLAGS += -DBRIM_WERROR=ON
endif

.PHONY: all deps configure build run test bench clean

all: build

deps:
	@bash scripts/install-deps

configure: deps
	@if [ ! -f $(BUILD)/build.ninja ]; then cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS); fi

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# With no ARGS the window opens on README.md; without a display it says so instead of starting.
run: build
	@if [ -n "$(ARGS)" ]; then ./$(BUILD)/Brim $(ARGS); \
	elif [ -z "$$DISPLAY" ] && [ -z "$$WAYLAND_DISPLAY" ]; then \
	  echo "make run: no display to show the window on (DISPLAY and WAYLAND_DISPLAY are unset)."; \
	  echo "Run it from a desktop session, or try a terminal command: make run ARGS=--help"; exit 1; \
	else ./$(BUILD)/Brim README.md; fi

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 900 --repeat until-pass:3

bench: build
	@cmake --build $(BUILD) --target brim_benchmarks -j $(JOBS)
	@for b in $(BUILD)/benchmarks/*_benchmarks; do echo "== $$b"; "$$b" || exit 1; done

clean:
	@rm -rf $(BUILD)

PREFIX ?= /usr/local
.PHONY: install
install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)
