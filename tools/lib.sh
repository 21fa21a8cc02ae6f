# Shared by the tools; sourced, after `set -euo pipefail`. Leaves the caller in the project's folder.

cd "$(dirname "${BASH_SOURCE[0]}")/.."

export CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
export CTEST_PARALLEL_LEVEL="${CTEST_PARALLEL_LEVEL:-$(nproc)}"

# What a configure and build of the whole project needs.
build_packages=(g++ cmake ninja-build libcli11-dev libgtest-dev libplf-colony-dev libpng-dev nlohmann-json3-dev)

# step TEXT: a heading in the output.
step()
{
    printf '\n== %s\n' "$*"
}

# need_packages NAME...: installs those Debian packages that are missing; asks no server when none is.
need_packages()
{
    local name missing=() as_root=()
    for name in "$@"; do
        if [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$name" 2>/dev/null)" != installed ]; then
            missing+=("$name")
        fi
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    step "installing ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures and builds, everything unless targets are given.
build()
{
    local preset="$1"
    shift
    cmake --preset "$preset"
    if [ "$#" -eq 0 ]; then
        cmake --build --preset "$preset"
    else
        cmake --build --preset "$preset" --target "$@"
    fi
}
