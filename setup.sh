#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the benchmarks and the
# fuzz targets need. Packages already present are left alone, so a second run
# costs a few dpkg queries.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang pkg-config
  googletest libgtest-dev
  libbenchmark-dev
  libpng-dev
  libyuv-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
