#!/bin/sh
# Unpacks the npm package of USearch (its C++ headers and the sources of its kernel library,
# NumKong) into DEST/package for bench_peers, and runs the package's own probe of the
# instruction sets this compiler can target (numkong/nk_probes.h), as its npm install would.
# Usage: fetch-usearch.sh DEST VERSION
# Exits non-zero, leaving nothing half-unpacked, when npm, node or the registry is not there.
set -eu
dest=$1
version=$2
if [ -f "$dest/package/numkong/nk_probes.h" ] &&
    [ "$(cat "$dest/version" 2>/dev/null)" = "$version" ]; then
    exit 0
fi
for tool in npm node; do
    command -v $tool >/dev/null 2>&1 || { echo "fetch-usearch: $tool is not installed" >&2; exit 1; }
done
mkdir -p "$dest"
work=$(mktemp -d "$dest/fetch.XXXXXX")
trap 'rm -rf "$work"' EXIT
(cd "$work" && npm pack --silent "usearch@$version" >/dev/null)
tar -xzf "$work"/usearch-*.tgz -C "$work"
(cd "$work/package/numkong" && node probes/probe.js >/dev/null)
rm -rf "$dest/package"
mv "$work/package" "$dest/package"
echo "$version" >"$dest/version"
