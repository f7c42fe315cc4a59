#!/usr/bin/env bash
# Fails when the shared library exports anything beyond the namespaces vrx, miscUtils and
# audioUtils (with their typeinfo and vtables): no internal helpers, no std instantiations.
set -euo pipefail
library=$1
symbols=$(nm -C -D --defined-only "$library" | cut -d' ' -f3-)
[ -n "$symbols" ] || { echo "no exported symbols in $library"; exit 1; }
foreign=$(grep -v -E '^((typeinfo( name)? for |vtable for )?(vrx|miscUtils|audioUtils)::)' <<<"$symbols" || true)
if [ -n "$foreign" ]; then
    echo "Symbols outside the library namespaces:"
    echo "$foreign"
    exit 1
fi
echo "$(wc -l <<<"$symbols") exported symbols, all in vrx, miscUtils or audioUtils"
