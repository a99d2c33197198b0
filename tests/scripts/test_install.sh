#!/bin/bash
# Installs the build into a scratch prefix, runs the installed programs from there
# (no library path set), builds small consumers against it (find_package under both
# spellings, pkg-config), then uninstalls it again.
set -euo pipefail
SRC=$1
BUILD=$2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null
test -f "$WORK/prefix/include/tarvik/Tarvik.h"
test -f "$WORK/prefix/include/tarvik/dll/TarvikDllSPI.h"
test ! -e "$WORK/prefix/include/tarvik/dll/TarvikDllPrivate.h"
for internal in clients/TarvikTestSystemWordsPrivate.h hexfile/TarvikHexLineReader.h hexfile/TarvikHexOutBuffer.h; do
    test ! -e "$WORK/prefix/include/tarvik/$internal"
done

# Every installed header includes only installed headers and compiles on its own.
INC="$WORK/prefix/include"
while IFS= read -r header; do
    name=${header#"$INC/"}
    for inc in $(sed -n 's/^#include "\(tarvik\/[^"]*\)".*/\1/p' "$header"); do
        if [ ! -f "$INC/$inc" ]; then
            echo "$name includes $inc, which is not installed" >&2
            exit 1
        fi
    done
    if ! echo "#include \"$name\"" | ${CXX:-c++} -std=c++17 -Wall -Wextra -Werror -fsyntax-only -I"$INC" -x c++ -; then
        echo "$name does not compile on its own" >&2
        exit 1
    fi
done < <(find "$INC/tarvik" -name '*.h' | sort)

grep -q "define TARVIK_VERSION_STRING \"$(sed -n 's/^project(tarvik VERSION \([0-9.]*\).*/\1/p' "$SRC/CMakeLists.txt")\"" \
    "$WORK/prefix/include/tarvik/TarvikVersion.h"

# The programs find their library in the prefix, wherever it is.
unset LD_LIBRARY_PATH
BIN="$WORK/prefix/bin"
"$BIN/tarvik" --version | grep -q "^tarvik [0-9.]* (Tarvik SPI DLL V1.3-2.18)$"
"$BIN/tarvik" --sim info >/dev/null
"$BIN/tarvik-sim" --version | grep -q "^tarvik-sim [0-9.]* (Tarvik SPI DLL V1.3-2.18)$"
for doc in LICENSE CHANGELOG.md README.md; do test -f "$WORK/prefix/share/doc/tarvik/$doc"; done
if command -v help2man >/dev/null; then
    for page in tarvik tarvik-sim; do grep -q "^.TH" "$WORK/prefix/share/man/man1/$page.1"; done
fi
for script in tarvik tarvik-sim; do bash -n "$WORK/prefix/share/bash-completion/completions/$script"; done

# find_package() finds the package under either spelling of its name.
for name in Tarvik tarvik; do
    cmake -S "$SRC/tests/install_consumer" -B "$WORK/consumer-$name" -DCMAKE_PREFIX_PATH="$WORK/prefix" \
        -DTARVIK_PACKAGE_NAME=$name >/dev/null
    cmake --build "$WORK/consumer-$name" >/dev/null
    "$WORK/consumer-$name/consumer_c"
    "$WORK/consumer-$name/consumer_cxx"
done

# A pkg-config consumer as the README builds it: it runs from the private prefix as it is.
LIBDIR=$(dirname "$(find "$WORK/prefix" -name tarvik.pc | head -n1)")
export PKG_CONFIG_PATH="$LIBDIR"
cc $(pkg-config --cflags tarvik) "$SRC/tests/install_consumer/consumer.c" -o "$WORK/consumer_pc" \
    $(pkg-config --libs tarvik) -Wl,-rpath,"$(pkg-config --variable=libdir tarvik)"
"$WORK/consumer_pc"

# The bash completion loads from the prefix as the README says.
bash -c "source '$WORK/prefix/share/bash-completion/completions/tarvik' && complete -p tarvik" | grep -q tarvik

# make uninstall removes every file the install wrote, and the directories of its own.
make -s -C "$SRC" uninstall BUILD="$BUILD" >/dev/null
left=$(find "$WORK/prefix" ! -type d)
if [ -n "$left" ]; then
    echo "left after make uninstall:" >&2
    echo "$left" >&2
    exit 1
fi
test ! -e "$WORK/prefix/include/tarvik"
echo "install check passed"
