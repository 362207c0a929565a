# Shared by the scripts of this folder; sourced, not run. bash.

set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Installs the Debian packages that are missing, or prints the one line that does and stops.
need_packages() {
  command -v dpkg-query >/dev/null ||
    fail "this system has no dpkg; please install by your own means what these Debian packages hold: $*"
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
      as_root=(sudo -n)
    else
      fail "some packages are missing. Please run this line, then start again:
  sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}"
    fi
  fi
  printf 'Installing %s\n' "${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  local log
  log=$(mktemp)
  if ! { "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" apt-get install -q -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1 </dev/null; then
    tail -n 15 "$log" >&2
    rm -f "$log"
    fail "could not install ${missing[*]} (the last lines of apt-get stand above)"
  fi
  rm -f "$log"
}

# Configures a preset (first argument, more cmake arguments may follow). Warnings are errors in
# continuous integration only: a newer compiler that warns of something new stops nobody's build.
configure() {
  local preset=$1 log werror=OFF
  shift
  [ -z "${CI:-}" ] || werror=ON
  log=$(mktemp)
  if ! (cd "$project" && cmake --preset "$preset" -DQIXX_WERROR=$werror "$@") >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    fail "cmake could not configure the build (its own words stand above)"
  fi
  rm -f "$log"
}

# Builds targets (all without) in a build folder.
build() {
  local folder=$1 log targets=()
  shift
  [ $# -eq 0 ] || targets=(--target "$@")
  log=$(mktemp)
  printf 'Building in %s ...\n' "${folder#"$project"/}"
  if ! cmake --build "$folder" -j "$(nproc)" "${targets[@]}" >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    rm -f "$log"
    fail "the build failed (its last lines stand above)"
  fi
  rm -f "$log"
}
