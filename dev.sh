#!/usr/bin/env bash
# Build helper for a Debian 12 machine (run as root, or with the packages
# already installed):
#   ./dev.sh demo   install what is missing, build, run the demo program
#   ./dev.sh test   install what is missing, build (warnings are errors), run every test
set -euo pipefail
cd "$(dirname "$0")"

packages=(build-essential cmake pkg-config libglib2.0-dev libjsoncpp-dev libgtest-dev
          libgmock-dev libbenchmark-dev faketime libspdlog-dev libcli11-dev)

install_missing() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

configure_and_build() {
  cmake -S . -B build -DZEL_WARNINGS_AS_ERRORS=ON
  cmake --build build -j"$(nproc)"
}

case "${1:-}" in
  demo)
    install_missing
    configure_and_build
    ./build/examples/zel_demo
    ;;
  test)
    install_missing
    configure_and_build
    ctest --test-dir build --output-on-failure -j4
    ;;
  *)
    echo "usage: $0 demo|test" >&2
    exit 2
    ;;
esac
