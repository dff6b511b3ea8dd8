# What the scripts share; to be sourced by bash. It changes to the top of the source tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# step TEXT...: says what comes next.
step() { printf '\n== %s\n' "$*"; }

# die TEXT...: ends the script with a message.
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Installs what packages.txt lists and this machine lacks.
install_packages() {
    local package missing=()
    for package in $(sed 's/#.*//' script/packages.txt); do
        [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    step "Install ${missing[*]}"
    [[ $EUID -eq 0 ]] || die "only root can install: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    (
        # Some packages bring a service along; none is started.
        policy=/usr/sbin/policy-rc.d
        if [[ ! -e $policy ]]; then
            trap 'rm -f "$policy"' EXIT
            printf '#!/bin/sh\nexit 101\n' >"$policy"
            chmod 755 "$policy"
        fi
        apt_install "${missing[@]}" || { apt-get update && apt_install "${missing[@]}"; }
    )
}

apt_install() { apt-get install --yes --no-install-recommends "$@"; }

# build PRESET [TARGET...]: configures and builds one of CMakePresets.json.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DBRANTLE_BUILD_BENCH=ON >"build/$preset.log" ||
        { cat "build/$preset.log" && return 1; }
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
mkdir -p build
