#!/usr/bin/env bash
# Installs the Debian 12 packages that a job needs, and only those missing:
#   .ci/install-packages.sh GROUP...
# The groups below are the one list of what every script needs. Nothing
# missing: no apt-get at all. Something missing: one `apt-get update`, then one
# `apt-get install`, which needs root (otherwise the command to run is
# printed and the exit status is 2).
#
# group     used by                            what for
# demo      dev.sh demo                        the library, the stand-ins, the demo
# test      dev.sh test, .ci/run               tests, benchmarks, zelctl; the package
#                                              tests (cpack's .deb step runs `file` and
#                                              dpkg-shlibdeps)
# checks    .ci/checks                         formatting, clang-tidy, ABI, API reference
# fuzz      fuzz/run.sh                        clang and libFuzzer
# coverage  .ci/coverage                       gcovr
# bench     bench/run.sh                       the contenders (spdlog, Boost.Asio)
# locks     .ci/run                            clang's lock checks over the library
set -euo pipefail

packages_of() {
  case $1 in
    demo) echo g++ make cmake pkg-config libglib2.0-dev libjsoncpp-dev ;;
    test) echo build-essential cmake pkg-config libglib2.0-dev libjsoncpp-dev libgtest-dev \
               libgmock-dev libbenchmark-dev libspdlog-dev libcli11-dev faketime file \
               dpkg-dev ;;
    checks) echo clang-format-14 clang-tidy-14 abigail-tools doxygen git ;;
    fuzz) echo clang libclang-rt-14-dev cmake pkg-config libglib2.0-dev libjsoncpp-dev ;;
    coverage) echo gcovr git ;;
    bench) echo build-essential cmake pkg-config libglib2.0-dev libjsoncpp-dev \
                libbenchmark-dev libspdlog-dev libboost-dev libcli11-dev ;;
    locks) echo clang-14 make cmake pkg-config libglib2.0-dev libjsoncpp-dev ;;
    *) echo "$0: unknown package group '$1' (demo test checks fuzz coverage bench locks)" >&2
       return 2 ;;
  esac
}

[ $# -gt 0 ] || { echo "usage: $0 GROUP..." >&2; exit 2; }
wanted=()
for group in "$@"; do
  list=$(packages_of "$group") || exit 2
  read -ra names <<<"$list"
  wanted+=("${names[@]}")
done

missing=()
for p in $(printf '%s\n' "${wanted[@]}" | sort -u); do
  # Installed means dpkg says so, not merely that it knows the name.
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" = installed ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "$0: missing packages; as root: apt-get install ${missing[*]}" >&2
  exit 2
fi
echo "installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
