#!/bin/bash
# Installs the build into a scratch prefix and builds two small consumers against
# it: one through find_package(Tarvik), one through pkg-config.
set -euo pipefail
SRC=$1
BUILD=$2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null
test -f "$WORK/prefix/include/tarvik/Tarvik.h"
test -f "$WORK/prefix/include/tarvik/dll/TarvikDllSPI.h"
test ! -e "$WORK/prefix/include/tarvik/dll/TarvikDllPrivate.h"

cmake -S "$SRC/tests/install_consumer" -B "$WORK/consumer" -DCMAKE_PREFIX_PATH="$WORK/prefix" >/dev/null
cmake --build "$WORK/consumer" >/dev/null
"$WORK/consumer/consumer_c"
"$WORK/consumer/consumer_cxx"

LIBDIR=$(dirname "$(find "$WORK/prefix" -name tarvik.pc | head -n1)")
export PKG_CONFIG_PATH="$LIBDIR"
cc $(pkg-config --cflags tarvik) "$SRC/tests/install_consumer/consumer.c" -o "$WORK/consumer_pc" $(pkg-config --libs tarvik)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir tarvik)" "$WORK/consumer_pc"
echo "install check passed"
