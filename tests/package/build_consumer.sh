#!/bin/sh
# Installs the build tree into an empty prefix, moves the prefix, builds one consumer project against it, runs it.
# Usage: build_consumer.sh find_package|pkg_config BUILD_DIR   (environment: CMAKE, CXX, CXXFLAGS)
set -eu

consumer=$1
build=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$CMAKE" --install "$build" --prefix "$work/first" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
# An installed tree may be moved, as packaging does.
mv "$work/first" "$work/prefix"

case $consumer in
find_package)
    "$CMAKE" -G Ninja -S "$here/find_package" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix"
    "$CMAKE" --build "$work/build"
    "$work/build/consumer"
    ;;
pkg_config)
    pc=$(dirname "$(find "$work/prefix" -name tarnadapterframe.pc)")
    export PKG_CONFIG_PATH="$pc"
    # shellcheck disable=SC2046,SC2086 # flags are words
    "$CXX" -std=c++17 ${CXXFLAGS:-} "$here/consumer.cpp" -o "$work/consumer" \
        $(pkg-config --cflags --libs tarnadapterframe)
    LD_LIBRARY_PATH="$(pkg-config --variable=libdir tarnadapterframe)" "$work/consumer"
    ;;
*)
    echo "unknown consumer: $consumer" >&2
    exit 2
    ;;
esac
