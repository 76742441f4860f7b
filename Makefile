# The project's commands. `make test` is what CI runs.
PRESET ?= default
BUILD  := build/$(PRESET)
JOBS   ?= 2

SECONDS ?= 60

.PHONY: all deps configure build test target-check run asan tsan bench sweep fuzz clean

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

tsan:
	@$(MAKE) --no-print-directory test PRESET=tsan

# Whole boots with each CE call of the program failing in turn (make test fails only the first and
# the last call of each name).
sweep: build
	@TARSK_SWEEP=full TARSK_SWEEP_JOBS=$(JOBS) $(BUILD)/test_sweep

# The libFuzzer targets of fuzz/ (clang, address and undefined-behaviour sanitizers), each run for
# SECONDS seconds over a copy of its seed corpus.
fuzz:
	@scripts/install-deps.sh fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build build/fuzz -j $(JOBS)
	@scripts/fuzz.sh $(SECONDS)

# One table: each benchmark beside its reference, medians of interleaved repetitions.
bench: build
	@scripts/bench-table.py $(BUILD)

clean:
	rm -rf build
