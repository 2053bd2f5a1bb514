# Front door: `make demo`, `make test`, `make sanitize`, `make tsan`, `make bench`.
# Each target first makes sure the Debian build dependencies are present.

BUILD   ?= build
JOBS    ?= $(shell nproc 2>/dev/null || echo 2)
PKGS    := cmake make g++ gfortran libgomp1 liblapack-dev libblas-dev libgtest-dev
TSAN_PKGS := clang libclang-rt-dev libomp-dev
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

# The built-in groundwater problem (40^3 cells), AMG with CG; DEMO_ARGS passes
# options to korn-solve (e.g. DEMO_ARGS="--size 100 --threads 2").
DEMO_ARGS ?=
demo: build
	@$(BUILD)/korn-solve $(DEMO_ARGS)

# Tests run side by side with threaded ones on few cores: OpenMP threads wait
# passively at barriers so that a waiting thread gives its core back.
TEST_ENV := OMP_WAIT_POLICY=PASSIVE

test: build
	@cd $(BUILD) && $(TEST_ENV) ctest --output-on-failure -j $(JOBS)

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole test suite; any
# finding (leaks included) fails the test. Runtime options: cmake/sanitizer_defaults.cpp.
SAN_CTEST := ctest --output-on-failure --no-tests=error --timeout 1800 -j $(JOBS)

sanitize: deps
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKORN_SANITIZE=address >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && $(TEST_ENV) $(SAN_CTEST)

# ThreadSanitizer over the threaded tests with 2 threads: clang with LLVM's
# OpenMP runtime, whose archer tool (loaded by the tests through
# OMP_TOOL_LIBRARIES) tells TSan about OpenMP's own synchronisation. The TSan
# options are compiled into the tests; archer only reads the environment, so
# the one it asks for is repeated here to keep its warning out of the logs.
tsan: tsan-deps
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DKORN_SANITIZE=thread \
	    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	@cd build-tsan && $(TEST_ENV) OMP_NUM_THREADS=2 TSAN_OPTIONS=ignore_noninstrumented_modules=1 \
	    $(SAN_CTEST) -L threaded

# Benchmarks against hypre's BoomerAMG (bench/README.md), in their own build
# tree; the report goes to $(BENCH_BUILD)/bench-report.md, the run logs to
# $(BENCH_BUILD)/korn-bench-logs. `make bench BENCH_ARGS=--full` for all problems.
BENCH_BUILD ?= build-bench
BENCH_PKGS  := libhypre-dev libopenmpi-dev openmpi-bin
BENCH_ARGS  ?= --quick

bench:
	@sh tools/ensure-deps.sh $(PKGS) $(BENCH_PKGS)
	@cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DKORN_BUILD_BENCH=ON >/dev/null
	@cmake --build $(BENCH_BUILD) -j $(JOBS) --target korn-bench
	@cd $(BENCH_BUILD) && bench/korn-bench --out bench-report.md $(BENCH_ARGS)

clean:
	rm -rf $(BUILD) build-asan build-tsan
