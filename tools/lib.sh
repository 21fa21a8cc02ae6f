# Shared by the tools: source it after `set -euo pipefail`. Changes to the project's folder.

# The first comment of the script: the text of --help. It lists the script's options, one per line, each followed by the
# name of its value in capitals if it has one.
usage="$(sed -n '2,/^[^#]/s/^#\( \|$\)//p' "$0")"
cd "$(dirname "${BASH_SOURCE[0]}")/.."

export CMAKE_BUILD_PARALLEL_LEVEL="${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
export CTEST_PARALLEL_LEVEL="${CTEST_PARALLEL_LEVEL:-$(nproc)}"

# The packages that building the whole project needs.
build_packages=(g++ cmake ninja-build libbenchmark-dev libcairo2-dev libcli11-dev libfontconfig-dev libglm-dev libgtest-dev libhdf5-dev libplf-colony-dev libpng-dev libtbb-dev nlohmann-json3-dev)

# usage_error TEXT: prints one line and exits with the status of a wrong call, 2.
usage_error()
{
    echo "tools/$(basename "$0"): $*; see --help" >&2
    exit 2
}

# check_arguments COUNT "$@": handles --help. Ends the script if an option is unknown or lacks its value, or if there
# are more than COUNT other arguments.
check_arguments()
{
    local left="$1" value
    shift
    while [ "$#" -gt 0 ]; do
        case "$1" in
        -h | --help)
            printf '%s\n' "$usage"
            exit
            ;;
        -*)
            value="$(awk -v option="${1%%=*}" '$1 == option { print $2 ~ /^[A-Z]/ ? $2 : "none" }' <<<"$usage")"
            [ -n "$value" ] || usage_error "unknown option $1"
            if [ "$value" != none ] && [[ "$1" != *=* ]]; then
                [ "$#" -gt 1 ] || usage_error "$1 needs a value: $value"
                shift
            fi
            ;;
        *)
            [ "$left" -gt 0 ] || usage_error "surplus argument $1"
            left="$((left - 1))"
            ;;
        esac
        shift
    done
}

# step TEXT: prints a heading.
step()
{
    printf '\n== %s\n' "$*"
}

# need_packages NAME...: installs the Debian packages that are missing; contacts no server if none is. If it cannot
# install them, it names them and ends the script. Without dpkg it only names them.
need_packages()
{
    local name missing=() as_root=()
    if ! command -v dpkg-query >/dev/null; then
        echo "This is not a Debian system. These packages, or what corresponds to them, should be installed: $*" >&2
        return
    fi
    for name in "$@"; do
        if [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$name" 2>/dev/null)" != installed ]; then
            missing+=("$name")
        fi
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    if command -v apt-get >/dev/null && command -v "${as_root[@]:-true}" >/dev/null; then
        step "installing ${missing[*]}"
        if "${as_root[@]}" apt-get update && "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install --yes --no-install-recommends "${missing[@]}"; then
            return
        fi
    fi
    echo "These packages are missing and could not be installed: ${missing[*]}" >&2
    exit 1
}

# build PRESET [TARGET...]: configures and builds the targets, or everything.
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
