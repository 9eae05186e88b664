#!/usr/bin/env bash
# Installs what is missing, builds a relocated (sandboxed) build and runs
# every test. Extra arguments go to cmake's configure step.
#   BUILD_DIR   build directory (default build/test)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

build_dir=${BUILD_DIR:-build/test}
mkdir -p "$build_dir"
build_dir=$(cd "$build_dir" && pwd)

cmake -S . -B "$build_dir" -DROOT_PREFIX="$build_dir/sandbox" "$@"
cmake --build "$build_dir" -j"$(nproc)"
cd "$build_dir"
ctest --output-on-failure -j"$(nproc)" --timeout 600
