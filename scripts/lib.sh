# shellcheck shell=bash disable=SC2034 # the scripts use the lists
# Shared by the scripts of this folder: where the project is, and its Debian packages. Sourced.

project_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs those of the named Debian packages that are missing. Speaks on standard error only.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
      missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return
  echo "installing ${missing[*]}" >&2
  {
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -qq --no-install-recommends "${missing[@]}"
  } >&2
}

build_packages=(g++ cmake ninja-build)
test_packages=(libgtest-dev libbenchmark-dev clang-format clang-tidy git groff-base shellcheck busybox mksh)
aarch64_packages=(g++-aarch64-linux-gnu qemu-user)
fuzz_packages=(clang libclang-rt-14-dev libgtest-dev)

# Configures a preset, once.
configure_preset() {
  [ -f "$project_dir/build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
}

# Configures a preset and builds the named targets of it (all without any). Silent when all goes
# well; two builds of one preset wait for each other.
build_preset() {
  local preset=$1 log status=0
  shift
  mkdir -p "$project_dir/build/$preset"
  log=$(mktemp)
  (
    cd "$project_dir"
    exec 9>"build/$preset/.lock"
    flock 9
    configure_preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
  ) >"$log" 2>&1 9>&- || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$log" >&2
  fi
  rm -f "$log"
  return "$status"
}
