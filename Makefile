# The project's commands. `make test` is what CI runs.
PRESET ?= default
BUILD  := build/$(PRESET)
JOBS   ?= 2

.PHONY: all deps configure build test target-check run asan bench clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@$(MAKE) --no-print-directory target-check

target-check:
	@scripts/target-check.sh

run: build
	@$(BUILD)/tarsk-sim run

asan:
	@$(MAKE) --no-print-directory test PRESET=asan

bench: build
	@for b in $(BUILD)/bench_*; do $$b; done

clean:
	rm -rf build
