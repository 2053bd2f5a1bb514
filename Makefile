# Front door: `make demo`, `make test`, `make sanitize`, `make tsan`, `make bench`.
# Each target first makes sure the Debian build dependencies are present.

BUILD   ?= build
JOBS    ?= $(shell nproc 2>/dev/null || echo 2)
PKGS    := cmake make g++ gfortran libgomp1 liblapack-dev libblas-dev libgtest-dev
TSAN_PKGS := clang libomp-dev
CMAKE_FLAGS ?=

.PHONY: all deps tsan-deps build demo test sanitize tsan bench clean

all: build

# Install what is missing: with apt-get as root, otherwise say what to run.
deps:
	@sh tools/ensure-deps.sh $(PKGS)

tsan-deps:
	@sh tools/ensure-deps.sh $(PKGS) $(TSAN_PKGS)

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@$(BUILD)/korn-solve

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole test suite.
sanitize: deps
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKORN_SANITIZE=address >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && ctest --output-on-failure -j $(JOBS)

# ThreadSanitizer over the threaded tests: clang with LLVM's OpenMP runtime,
# whose archer tool tells TSan about OpenMP's own synchronisation.
tsan: tsan-deps
	@CC=clang CXX=clang++ cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DKORN_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	@cd build-tsan && OMP_NUM_THREADS=2 TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	    ctest --output-on-failure -j $(JOBS) -L threaded

bench: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DKORN_BUILD_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@$(BUILD)/bench/korn-bench

clean:
	rm -rf $(BUILD) build-asan build-tsan
