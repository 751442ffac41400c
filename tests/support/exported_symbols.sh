#!/bin/sh
# The shared library must export exactly the C names in the list: no internal helper leaks out
# and no entry point goes missing. Usage: exported_symbols.sh LIBRARY LIST. Exit 77 (skipped)
# when the list is not beside the checkout.
lib=$1
list=$2
if [ ! -f "$list" ]; then
    echo "exported-symbol list not found at $list: check skipped"
    exit 77
fi
want=$(mktemp) && have=$(mktemp) || exit 1
trap 'rm -f "$want" "$have"' EXIT
grep -v -e '^#' -e '^[[:space:]]*$' "$list" | sort -u >"$want"
nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sort -u >"$have"
if ! diff "$want" "$have"; then
    echo "exported symbols differ from $list (< missing, > unexpected)"
    exit 1
fi
