#!/usr/bin/env bash
# Every benchmark of the tree, against one build directory.
#
#   bash bench/run_all.sh BUILDDIR
set -euo pipefail

build=${1:?usage: run_all.sh BUILDDIR}
here=$(cd "$(dirname "$0")" && pwd)

bash "$here/run_roundtrip.sh" "$build"
if [ -f "$here/run_hexfile.sh" ]; then
    echo
    bash "$here/run_hexfile.sh" "$build"
fi
echo
bash "$here/run_sendfile.sh" "$build"
echo
bash "$here/run_can_ingest.sh" "$build"
