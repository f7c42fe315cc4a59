#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a consumer program against it twice:
# once with pkg-config, once with find_package(Voraxis). Both must build and run.
set -euo pipefail
build_dir=$1 consumer_dir=$2/consumer cmake=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
pc_dir=$(dirname "$(find "$scratch/prefix" -name kavo_voraxis.pc)")
lib_dir=$(dirname "$(find "$scratch/prefix" -name 'libkavo_voraxis.so' | head -n1)")

echo "== pkg-config"
g++ "$consumer_dir/consumer.cpp" -o "$scratch/consumer-pkgconfig" \
    $(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs kavo_voraxis)
LD_LIBRARY_PATH="$lib_dir" "$scratch/consumer-pkgconfig"

echo "== find_package(Voraxis)"
"$cmake" -S "$consumer_dir" -B "$scratch/consumer-build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
"$cmake" --build "$scratch/consumer-build" >/dev/null
LD_LIBRARY_PATH="$lib_dir" "$scratch/consumer-build/consumer"
