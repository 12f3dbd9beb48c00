# shellcheck shell=bash disable=SC2034
# Sourced by the other scripts: the repository as working directory, the compiler, how to configure.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit
jobs=${JOBS:-$(nproc)}
export CC=gcc CXX=g++

say() { printf '\n== %s\n' "$*"; }

# configure PRESET [CMAKE OPTION...]
configure() {
  local launcher=()
  if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
  cmake --preset "$@" "${launcher[@]}"
}
