# Sourced by the other scripts: finds the project, installs what is missing, keeps the compiler cache warm.
set -euo pipefail

FODR_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export CCACHE_BASEDIR="$FODR_ROOT" CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros

BUILD_PACKAGES=(g++ cmake ninja-build ccache pkg-config libglibmm-2.4-dev libfuse3-dev fuse3 libmount-dev
  libudev-dev libcli11-dev)
TEST_PACKAGES=(libgtest-dev libgmock-dev libumockdev-dev umockdev unicode-data git make python3 attr
  openssh-server openssh-client psmisc procps iproute2 mount e2fsprogs strace)
FORMAT_PACKAGES=(clang-format-14)
LINT_PACKAGES=(clang-14 clang-tidy-14)
WINDOWS_PACKAGES=(g++-mingw-w64-x86-64-posix googletest wine wine64 xvfb xauth)
BENCH_PACKAGES=(libbenchmark-dev libspdlog-dev sshfs openssh-sftp-server python3)
FUZZ_PACKAGES=(clang-14 libclang-rt-14-dev)

die() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# ensure PACKAGE...: installs those that aren't there. Silent and quick when all are.
ensure() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || die "needs these packages, and root to install them: ${missing[*]}"
    sudo=(sudo)
  fi
  echo "Installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  # Another may be at it, and the network may fail once.
  local apt=("${sudo[@]}" apt-get -qq -o DPkg::Lock::Timeout=600 -o Acquire::Retries=5)
  if ! "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null 2>&1; then
    "${apt[@]}" update >&2
    "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null ||
      die "could not install: ${missing[*]}"
  fi
}

# build PRESET [TARGET...]: configures when that hasn't been done, then builds. Prints only what went wrong.
build() {
  local preset=$1 folder="$FODR_ROOT/build/$1" log
  shift
  log=$(mktemp)
  if [ ! -f "$folder/build.ninja" ] || [ "$FODR_ROOT/CMakePresets.json" -nt "$folder/build.ninja" ]; then
    (cd "$FODR_ROOT" && cmake --preset "$preset" >"$log" 2>&1) || { cat "$log" >&2; rm -f "$log"; return 1; }
  fi
  if [ -t 2 ]; then
    ninja -C "$folder" "$@" >&2 || { rm -f "$log"; return 1; }
  else
    ninja -C "$folder" "$@" >"$log" 2>&1 || { grep -v '^\[' "$log" >&2; rm -f "$log"; return 1; }
  fi
  rm -f "$log"
}
