#!/bin/bash
# Code lines (cloc, comments and blanks left out) of the product and of the tests, and the
# tests' share of all code. Run from the repository root.
set -euo pipefail
count() { cloc --quiet --csv --exclude-lang=Markdown "$@" | awk -F, '$2=="SUM"{print $5}'; }
product=$(count tarvik sim tools python/src python/tarvik)
tests=$(count tests python/tests)
awk -v p="$product" -v t="$tests" 'BEGIN{printf "product %d, tests %d, share %.1f%%\n", p, t, 100*t/(p+t)}'
