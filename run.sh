#!/usr/bin/env bash
# Builds and runs libnoxjvm_inspector on a Debian 12 machine.
#   ./run.sh demo        build, then show what the library sees on this host
#   ./run.sh test        build, then run every test (C++ and Java)
#   ./run.sh sanitize    C++ tests built with AddressSanitizer and UndefinedBehaviorSanitizer
#   ./run.sh tsan        the C++ race tests (label tsan) built with ThreadSanitizer
#   ./run.sh unprivileged  C++ and Java tests once more as user nobody (needs root and ./run.sh test first)
set -euo pipefail
cd "$(dirname "$0")"

# Debian packages the build, the tests and the benchmarks need.
packages=(cmake g++ openjdk-17-jdk-headless libgtest-dev libbenchmark-dev junit5 socat python3 libjunixsocket-java prometheus)

missing_packages() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  echo "${missing[@]:-}"
}

ensure_packages() {
  local missing
  missing=$(missing_packages)
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

case "${1:-}" in
  demo) ensure_packages; demo ;;
  test) ensure_packages; run_tests ;;
  sanitize) ensure_packages; sanitize ;;
  tsan) ensure_packages; tsan ;;
  unprivileged) unprivileged ;;
  *) echo "usage: $0 demo|test|sanitize|tsan|unprivileged" >&2; exit 2 ;;
esac
