#!/usr/bin/env bash
# Builds and runs libnoxjvm_inspector on a Debian 12 machine.
#   ./run.sh demo        build, then show what the library sees on this host
#   ./run.sh test        build, then run every test (C++ and Java)
#   ./run.sh sanitize    C++ tests built with AddressSanitizer and UndefinedBehaviorSanitizer
#   ./run.sh tsan        the C++ race tests (label tsan) built with ThreadSanitizer
#   ./run.sh unprivileged  C++ and Java tests once more as user nobody (needs root and ./run.sh test first)
#   ./run.sh fuzz        every libFuzzer target under fuzz/ for NOX_FUZZ_SECONDS each (default 30)
set -euo pipefail
cd "$(dirname "$0")"

# Debian packages the build, the tests and the benchmarks need.
packages=(cmake g++ openjdk-17-jdk-headless libgtest-dev libbenchmark-dev junit5 socat python3 libjunixsocket-java prometheus tmux chromium)
# Only ./run.sh fuzz needs these.
fuzz_packages=(clang-14 libclang-rt-14-dev)

missing_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  echo "${missing[@]:-}"
}

ensure_packages() {
  local missing want=("$@")
  [ ${#want[@]} -eq 0 ] && want=("${packages[@]}")
  missing=$(missing_packages "${want[@]}")
  [ -z "$missing" ] && return 0
  if [ "$(id -u)" = 0 ]; then
    echo "Installing: $missing"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing >/dev/null
  else
    echo "Missing Debian packages. Run as root:" >&2
    echo "  apt-get update && apt-get install -y $missing" >&2
    exit 1
  fi
}

build() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
}

demo() {
  cmake --preset release >/dev/null
  # Only what the demo runs: the library, the jar, the simulated VM and the host scan.
  cmake --build --preset release --target noxjvm_inspector noxjvm_inspector_jar nox_agent_jar vmsim nox_hostscan
  if [ -x tools/demo.sh ]; then
    tools/demo.sh build/release
  else
    build/release/tools/hostscan/nox_hostscan
  fi
}

run_tests() {
  build release
  ctest --preset release
}

sanitize() {
  build asan
  ctest --preset asan
}

tsan() {
  build tsan
  ctest --preset tsan
}

# The C++ and Java tests once more as an unprivileged user: root skips the System V and file
# permission checks, so a suite that only runs as root would hide mistakes there.
unprivileged() {
  if [ "$(id -u)" != 0 ]; then
    echo "unprivileged: already running as $(id -un); ./run.sh test covers it"
    return 0
  fi
  [ -f build/release/CTestTestfile.cmake ] || { echo "run ./run.sh test first" >&2; exit 1; }
  mkdir -p build/release/Testing/Temporary
  chmod -R a+rwX build/release/Testing
  setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/tmp \
    ctest --test-dir build/release --output-on-failure -j2 --timeout 300
}

# Each target starts from its seeds in fuzz/corpus/<target>/ and keeps what it finds in
# build/fuzz/corpus/<target>/ (the seeds in the repository stay as they are). A crash stops the
# run with the input saved as build/fuzz/crash-*.
fuzz() {
  local seconds=${NOX_FUZZ_SECONDS:-30}
  build fuzz
  local source target
  for source in fuzz/*.cpp; do
    target=$(basename "$source" .cpp)
    mkdir -p "build/fuzz/corpus/$target"
    echo "fuzz: $target for ${seconds}s"
    "build/fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix=build/fuzz/ "build/fuzz/corpus/$target" "fuzz/corpus/$target"
  done
}

case "${1:-}" in
  demo) ensure_packages; demo ;;
  test) ensure_packages; run_tests ;;
  sanitize) ensure_packages; sanitize ;;
  tsan) ensure_packages; tsan ;;
  unprivileged) unprivileged ;;
  fuzz) ensure_packages "${packages[@]}" "${fuzz_packages[@]}"; fuzz ;;
  *) echo "usage: $0 demo|test|sanitize|tsan|unprivileged|fuzz" >&2; exit 2 ;;
esac
