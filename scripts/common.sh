# Shared by the scripts of this folder; sourced, not run. bash.

set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Sets `missing` to those of the Debian packages that are not installed, and `how` to the line that installs them.
find_missing() {
  local package
  missing=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  how="sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}"
}

# Installs what is in `missing`. 1: that is not for this user to do; 2: apt-get failed, its last words are printed.
install_missing() {
  local as_root=() log code=0
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null && sudo -n true 2>/dev/null || return 1
    as_root=(sudo -n)
  fi
  printf 'Installing %s\n' "${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  log=$(mktemp)
  { "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" apt-get install -q -y --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1 </dev/null || code=2
  [ $code -eq 0 ] || tail -n 15 "$log" >&2
  rm -f "$log"
  return $code
}

# Installs the Debian packages that are missing, or prints the one line that does and stops.
need_packages() {
  command -v dpkg-query >/dev/null ||
    fail "this system has no dpkg; please install by your own means what these Debian packages hold: $*"
  local missing how code=0
  find_missing "$@"
  [ ${#missing[@]} -gt 0 ] || return 0
  install_missing || code=$?
  case $code in
    1) fail "some packages are missing. Please run this line, then start again:
  $how" ;;
    2) fail "could not install ${missing[*]} (the last lines of apt-get stand above)" ;;
  esac
}

# The same for packages without which only a part is lost, which the first argument names.
want_packages() {
  local lost=$1 missing how
  shift
  find_missing "$@"
  [ ${#missing[@]} -eq 0 ] || install_missing ||
    printf '\n*** %s, for want of packages. To change that, run\n***   %s\n\n' "$lost" "$how" >&2
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

# Shows how far a build has come: on a terminal in one line that is written anew, elsewhere at each further fifth.
show_progress() {
  local line percent shown=0
  while IFS= read -r line; do
    [[ $line =~ ^\[\ *([0-9]+)%\]\ *(.*)$ ]] || continue
    percent=${BASH_REMATCH[1]}
    if [ -t 1 ]; then
      printf '\r\033[K  %3d %%  %.60s' "$percent" "${BASH_REMATCH[2]##*/}"
    elif [ "$percent" -ge $((shown + 20)) ]; then
      shown=$percent
      printf '  %3d %%\n' "$percent"
    fi
  done
  [ ! -t 1 ] || printf '\r\033[K'
}

# Builds targets (all without) in a build folder.
build() {
  local folder=$1 log targets=()
  shift
  [ $# -eq 0 ] || targets=(--target "$@")
  log=$(mktemp)
  printf 'Building in %s ...\n' "${folder#"$project"/}"
  if ! cmake --build "$folder" -j "$(nproc)" "${targets[@]}" 2>&1 | tee "$log" | show_progress; then
    grep -A 12 -m 3 -E 'error|Error' "$log" >&2 || tail -n 40 "$log" >&2
    rm -f "$log"
    fail "the build failed (what it says stands above)"
  fi
  rm -f "$log"
}

# Lists the tests that the last run in a build folder skipped, each reason once with the number of its tests.
list_skipped() {
  local log=$1/Testing/Temporary/LastTest.log
  [ -f "$log" ] || return 0
  awk '/: Skipped$/ && (getline reason) > 0 { count[reason]++ }
       END { for (reason in count) printf "%d skipped: %s\n", count[reason], reason }' "$log"
}
