#!/usr/bin/env bash
# Installs what building and testing kspl needs on a fresh Debian machine.
# Usage: scripts/setup.sh [--i386] [--bench] [--fuzz]
#   --i386   also the 32-bit toolchain, qemu-user and the i386 SQLite runtime
#   --bench  also the peer libraries the benchmarks compare against
#   --fuzz   also clang and its runtimes (libFuzzer, sanitizers) for the fuzz preset
set -u
here=$(cd "$(dirname "$0")/.." && pwd)
want_i386=0
want_bench=0
want_fuzz=0
for a in "$@"; do
  case "$a" in
    --i386) want_i386=1 ;;
    --bench) want_bench=1 ;;
    --fuzz) want_fuzz=1 ;;
  esac
done

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

# What the README's commands use: the build, the test suites, scripts/valgrind.sh
# (valgrind), the store's tool and its tests (sqlite3), the install test
# (pkg-config, readelf of binutils) and the Debian packages (cpack runs file
# and dpkg-shlibdeps of dpkg-dev; dpkg-deb inspects them).
pkgs="cmake ninja-build g++ gcc make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev sqlite3 binutils valgrind dpkg-dev file"
[ "$want_i386" = 1 ] && pkgs="$pkgs g++-multilib qemu-user"
[ "$want_bench" = 1 ] && pkgs="$pkgs libglib2.0-dev libapr1-dev"
[ "$want_fuzz" = 1 ] && pkgs="$pkgs clang libclang-rt-14-dev"

missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  # A mirror index that fails to download is tolerated: what is cached still works.
  $SUDO apt-get update || echo "setup: apt-get update reported an error; going on" >&2
  $SUDO apt-get install -y --no-install-recommends $missing || { echo "setup: could not install:$missing" >&2; exit 1; }
fi

if [ "$want_i386" = 1 ]; then
  "$here/scripts/setup-i386-sqlite.sh" || exit 1
fi
exit 0
