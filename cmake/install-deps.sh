#!/bin/sh
# Installs the Debian packages the build needs, and any more named as
# arguments (make fuzz adds clang, make test32 the multilib compiler and
# i386 libraries), or, when not root, says which ones are missing. Silent
# when everything is already there.
#
# A name without an architecture means the machine's own (or an
# architecture-independent package); pkg:i386 means that architecture,
# which is enabled through Debian's multiarch first if need be.
set -eu

packages="g++ cmake make pkg-config libgtest-dev libgmock-dev libbenchmark-dev \
  zlib1g-dev libboost-iostreams-dev libboost-filesystem-dev $*"

if ! command -v dpkg-query >/dev/null 2>&1; then
  echo "install-deps: not a Debian system; make sure these are installed: $packages" >&2
  exit 0
fi

native=$(dpkg --print-architecture)

# Once a second architecture is enabled, an unqualified query lists a
# package once per architecture: only the native or architecture-free one
# counts. dpkg-query fails for packages it has never heard of; that means
# missing too.
installed() {
  case $1 in
    *:*) [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null || true)" = "install ok installed" ] ;;
    *) dpkg-query -W -f='${Status} ${Architecture}\n' "$1" 2>/dev/null |
         grep -qE "^install ok installed ($native|all)\$" ;;
  esac
}

missing=""
architectures=""
for package in $packages; do
  installed "$package" && continue
  missing="$missing $package"
  case $package in
    *:*) architectures="$architectures ${package##*:}" ;;
  esac
done

[ -z "$missing" ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages:$missing" >&2
  echo "install-deps: install them with:" >&2
  for arch in $architectures; do
    echo "  sudo dpkg --add-architecture $arch" >&2
  done
  [ -n "$architectures" ] && echo "  sudo apt-get update" >&2
  echo "  sudo apt-get install -y --no-install-recommends$missing" >&2
  exit 1
fi

for arch in $architectures; do
  if [ "$arch" != "$native" ] && ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    echo "install-deps: enabling the $arch architecture"
    dpkg --add-architecture "$arch"
  fi
done

echo "install-deps: installing$missing"
export DEBIAN_FRONTEND=noninteractive
# A mirror may serve one list out of step with the rest (seen for
# bookworm-security's i386 list); the packages may still all be found in the
# others, and if not, apt-get install below says which and fails.
apt-get update || echo "install-deps: some package lists could not be fetched; going on with the rest" >&2
# $missing is a space-separated list of package names; split it on purpose.
# shellcheck disable=SC2086
apt-get install -y --no-install-recommends $missing
