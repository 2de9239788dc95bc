#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
set -euo pipefail
need=()
# "setup.sh --tests" adds what only the tests use: python3 for scripted checks; R with ape
# and phangorn, to check that trees and data written by the program are read by it, scored
# the same and that tree distances agree; and a headless browser that renders the SVG
# diagrams (about a minute and a half to install).
extra=()
[ "${1:-}" = "--tests" ] && extra=(r-base-core r-cran-ape r-cran-phangorn python3 chromium)
for pkg in build-essential cmake libncurses-dev libgtest-dev libbenchmark-dev pvm pvm-dev tmux clang "${extra[@]}"; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
  elif command -v sudo >/dev/null; then
    sudo apt-get update -qq && sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
  else
    echo "missing packages: ${need[*]} (run as root to install them)" >&2
    exit 1
  fi
fi
