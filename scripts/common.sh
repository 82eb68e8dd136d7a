# What the scripts share. Sourced, never run; needs bash.

set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
build_root=${MAVIX_BUILD_ROOT:-$root/build}

say() { printf '== %s\n' "$*"; }
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 2
}

# Another user's build tree would break half-way: files that cannot be overwritten, or that its owner cannot
# overwrite afterwards.
claim_build_dir() {
    local dir=$1 owner
    mkdir -p "$dir" 2>/dev/null ||
        die "cannot create $dir; set MAVIX_BUILD_ROOT to a folder of your own"
    owner=$(stat -c %U "$dir")
    [ -O "$dir" ] && [ -w "$dir" ] ||
        die "$dir belongs to $owner; remove it or set MAVIX_BUILD_ROOT to a folder of your own"
}

# configure PRESET FOLDER [CMAKE_ARGUMENT...]
configure() {
    local preset=$1 dir=$2 log
    shift 2
    claim_build_dir "$dir"
    log=$dir/configure.log
    if ! (cd "$root" && cmake --preset "$preset" -B "$dir" "$@") >"$log" 2>&1; then
        cat "$log" >&2
        die "cannot configure $dir"
    fi
}

jobs_count() { nproc; }
