# The two commands a user needs. Both install what is missing first.
#   make demo   build kSieve and run it on the bundled sample data
#   make test   build with warnings as errors, run every test, then again under
#               AddressSanitizer and UndefinedBehaviorSanitizer, and under
#               ThreadSanitizer
#   make install PREFIX=/opt/ksieve
#               build, then put kSieve, its two companions and IPV.txt together
#               in PREFIX/bin, from where kSieve runs in any working directory
#   make workflow INPUT=<folder> FASTA=<file> OUT=<folder> [PROFILE=slurm]
#               [WORKFLOW_CONFIG='ksieve_parameters={validate_precursors: 1}']
#               kSieve, Comet and OpenMS FDR on every run of a folder, report in OUT;
#               WORKFLOW_CONFIG adds settings of workflow/config.yaml
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
INPUT ?= data/demo
FASTA ?= data/demo/bsa_demo.fasta
OUT ?= results/demo
PROFILE ?=
WORKFLOW_CONFIG ?=
KSIEVE_BIN ?= build/release/bin
export INPUT FASTA OUT PROFILE KSIEVE_BIN

.PHONY: demo test deps build install workflow

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release
	cmake --build build/release -j $(JOBS)

install: build
	cmake --install build/release --prefix $(PREFIX)

demo: build
	@bash scripts/demo.sh build/release

test: deps
	bash scripts/check-format.sh
	cmake -S . -B build/ci -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKSIEVE_WERROR=ON
	cmake --build build/ci -j $(JOBS)
	ctest --test-dir build/ci --output-on-failure -j $(JOBS)
	cmake -S . -B build/sanitize -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKSIEVE_WERROR=ON \
	  -DKSIEVE_SANITIZE=ON -DKSIEVE_BUILD_COMPANION=OFF -DKSIEVE_BUILD_BENCH=OFF
	cmake --build build/sanitize -j $(JOBS)
	ctest --test-dir build/sanitize --output-on-failure -j $(JOBS)
	cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKSIEVE_WERROR=ON \
	  -DKSIEVE_TSAN=ON -DKSIEVE_BUILD_COMPANION=OFF -DKSIEVE_BUILD_BENCH=OFF
	cmake --build build/tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build/tsan --output-on-failure -j $(JOBS)

# Snakemake runs inside OUT, so each output folder keeps its own record of what
# is done (a rerun redoes only what is missing) and its own lock.
# The paths go to the workflow in the environment, never through a shell line,
# so a blank or a quote in them stays part of the name.
workflow: build
	/usr/bin/python3 workflow/scripts/launch.py $(WORKFLOW_CONFIG)
