#!/bin/sh
# Installs the Debian packages the build needs, and any more named as
# arguments (make fuzz adds clang), or, when not root, says which ones are
# missing. Silent when everything is already there.
set -eu

packages="g++ cmake make pkg-config libgtest-dev libgmock-dev libbenchmark-dev \
  zlib1g-dev libboost-iostreams-dev libboost-filesystem-dev $*"

if ! command -v dpkg-query >/dev/null 2>&1; then
  echo "install-deps: not a Debian system; make sure these are installed: $packages" >&2
  exit 0
fi

missing=""
for package in $packages; do
  # dpkg-query fails for packages it has never heard of; that means missing too.
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  if [ "$status" != "install ok installed" ]; then
    missing="$missing $package"
  fi
done

[ -z "$missing" ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages:$missing" >&2
  echo "install-deps: install them with:" >&2
  echo "  sudo apt-get install -y --no-install-recommends$missing" >&2
  exit 1
fi

echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get update
# $missing is a space-separated list of package names; split it on purpose.
# shellcheck disable=SC2086
apt-get install -y --no-install-recommends $missing
