#!/usr/bin/env bash
# Build helper for a Debian 12 machine (run as root, or with the packages
# already installed):
#   ./dev.sh demo   install what is missing, build the demo only (preset "demo",
#                   build-demo/), run it
#   ./dev.sh test   install what is missing, build everything with warnings as
#                   errors (preset "dev", build/), run every test
# Configure options come from CMakePresets.json, packages from
# .ci/install-packages.sh.
set -euo pipefail
cd "$(dirname "$0")"

case "${1:-}" in
  demo)
    .ci/install-packages.sh demo
    echo "configuring and building the demo (build-demo/)"
    cmake --preset demo >/dev/null
    cmake --build --preset demo -j"$(nproc)" >/dev/null
    exec ./build-demo/examples/zel_demo
    ;;
  test)
    .ci/install-packages.sh test
    cmake --preset dev
    cmake --build --preset dev -j"$(nproc)"
    ctest --preset dev
    ;;
  *)
    echo "usage: $0 demo|test" >&2
    exit 2
    ;;
esac
