# Shared by the demo and test scripts: install what is missing (as root, on Debian), then
# configure and build one tree.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
JOBS="$(nproc 2>/dev/null || echo 2)"

ensure_packages() {
    local missing=()
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' ||
            missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing Debian packages: ${missing[*]} (run as root, or install them first)" >&2
        exit 1
    fi
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build_tree DIR [cmake args...]: configure and build quietly; show the log only on failure.
# BUILD_TARGETS, when set, names the targets to build instead of all.
build_tree() {
    local dir="$1"
    shift
    mkdir -p "$dir"
    local targets=()
    for t in ${BUILD_TARGETS:-}; do targets+=(--target "$t"); done
    if ! { cmake -S "$ROOT" -B "$dir" -G Ninja "$@" &&
        cmake --build "$dir" -j "$JOBS" "${targets[@]}"; } \
        >"$dir/build.log" 2>&1; then
        tail -n 60 "$dir/build.log" >&2
        echo "build failed in $dir (full log: $dir/build.log)" >&2
        exit 1
    fi
}
