#!/usr/bin/env bash
# Builds and runs the project.
#   ./make.sh run     release build, then a capture from the emulated camera
#   ./make.sh test    every test under AddressSanitizer + UndefinedBehaviorSanitizer,
#                     the threading suites under ThreadSanitizer, and a short
#                     libFuzzer run of every fuzz target
#   ./make.sh bench   release build of the benchmarks, and a run of them
set -euo pipefail
cd "$(dirname "$0")"
jobs=$(nproc 2>/dev/null || echo 2)

configure() { # dir, extra cmake args...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
}

case "${1:-run}" in
  run)
    shift || true
    configure build/release -DCMAKE_BUILD_TYPE=Release -DMR740_TESTS=OFF
    cmake --build build/release -j "$jobs" --target mr740cam
    ./build/release/mr740cam capture "$@"
    ;;
  test)
    configure build/asan -DCMAKE_BUILD_TYPE=Debug -DMR740_SANITIZE=address,undefined
    cmake --build build/asan -j "$jobs"
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
      ctest --test-dir build/asan --output-on-failure -j "$jobs"

    configure build/tsan -DCMAKE_BUILD_TYPE=Debug -DMR740_SANITIZE=thread
    cmake --build build/tsan -j "$jobs" --target mr740_tests
    TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build/tsan --output-on-failure -R threads

    if command -v clang++ >/dev/null; then
      configure build/fuzz -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
        -DMR740_SANITIZE=address,undefined -DMR740_LIBFUZZER=ON -DMR740_TESTS=ON
      targets=$(cd fuzz && ls *_fuzz.cc 2>/dev/null | sed 's/_fuzz\.cc$//')
      for t in $targets; do cmake --build build/fuzz -j "$jobs" --target "fuzz_$t"; done
      for t in $targets; do
        mkdir -p "build/fuzz/corpus/$t"
        echo "fuzz: $t for ${MR740_FUZZ_SECONDS:-20} s"
        corpora=("build/fuzz/corpus/$t")
        [ -d "fuzz/corpus/$t" ] && corpora+=("fuzz/corpus/$t")
        ./build/fuzz/fuzz/fuzz_$t -max_total_time="${MR740_FUZZ_SECONDS:-20}" \
          -print_final_stats=0 "${corpora[@]}" > "build/fuzz/$t.log" 2>&1 ||
          { tail -n 40 "build/fuzz/$t.log"; exit 1; }
        tail -n 1 "build/fuzz/$t.log"
      done
    fi
    ;;
  bench)
    shift || true
    configure build/release -DCMAKE_BUILD_TYPE=Release -DMR740_BENCH=ON -DMR740_TESTS=OFF
    cmake --build build/release -j "$jobs" --target mr740_bench
    ./build/release/bench/mr740_bench "$@"
    ;;
  *)
    echo "usage: $0 run|test|bench [args]" >&2
    exit 2
    ;;
esac
