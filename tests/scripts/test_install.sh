#!/bin/bash
# Installs the build into a scratch prefix, runs the installed programs from there
# (no library path set), and builds two small consumers against it: one through
# find_package(Tarvik), one through pkg-config.
set -euo pipefail
SRC=$1
BUILD=$2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null
test -f "$WORK/prefix/include/tarvik/Tarvik.h"
test -f "$WORK/prefix/include/tarvik/dll/TarvikDllSPI.h"
test ! -e "$WORK/prefix/include/tarvik/dll/TarvikDllPrivate.h"
grep -q "define TARVIK_VERSION_STRING \"$(sed -n 's/^project(tarvik VERSION \([0-9.]*\).*/\1/p' "$SRC/CMakeLists.txt")\"" \
    "$WORK/prefix/include/tarvik/TarvikVersion.h"

# The programs find their library in the prefix, wherever it is.
unset LD_LIBRARY_PATH
BIN="$WORK/prefix/bin"
"$BIN/tarvik" --version | grep -q "^tarvik [0-9.]* (Tarvik SPI DLL V1.3-2.18)$"
"$BIN/tarvik" info >/dev/null
"$BIN/tarvik-sim" --version | grep -q "^tarvik-sim [0-9.]* (Tarvik SPI DLL V1.3-2.18)$"
for doc in LICENSE CHANGELOG.md README.md; do test -f "$WORK/prefix/share/doc/tarvik/$doc"; done
if command -v help2man >/dev/null; then
    for page in tarvik tarvik-sim; do grep -q "^.TH" "$WORK/prefix/share/man/man1/$page.1"; done
fi
for script in tarvik tarvik-sim; do bash -n "$WORK/prefix/share/bash-completion/completions/$script"; done

cmake -S "$SRC/tests/install_consumer" -B "$WORK/consumer" -DCMAKE_PREFIX_PATH="$WORK/prefix" >/dev/null
cmake --build "$WORK/consumer" >/dev/null
"$WORK/consumer/consumer_c"
"$WORK/consumer/consumer_cxx"

LIBDIR=$(dirname "$(find "$WORK/prefix" -name tarvik.pc | head -n1)")
export PKG_CONFIG_PATH="$LIBDIR"
cc $(pkg-config --cflags tarvik) "$SRC/tests/install_consumer/consumer.c" -o "$WORK/consumer_pc" $(pkg-config --libs tarvik)
LD_LIBRARY_PATH="$(pkg-config --variable=libdir tarvik)" "$WORK/consumer_pc"
echo "install check passed"
