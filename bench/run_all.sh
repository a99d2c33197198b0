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
echo
bash "$here/run_busy_bus.sh" "$build"
echo
bash "$here/run_awire.sh" "$build"
# The Python bindings' receive path, when the build has the module (TARVIK_BUILD_PYTHON).
if compgen -G "$build/python/tarvik/_tarvik*.so" >/dev/null && /usr/bin/python3 -c 'import can' 2>/dev/null; then
    echo
    PYTHONPATH="$build/python" /usr/bin/python3 "$here/bench_python_recv.py"
fi
