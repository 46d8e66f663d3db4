#!/usr/bin/env bash
# Fetches Debian's i386 SQLite runtime into .deps/i386 (the header is the
# 64-bit package's), so the i386 build links and tests the store too.
set -u
here=$(cd "$(dirname "$0")/.." && pwd)
dest="$here/.deps/i386"
if ls "$dest"/usr/lib/i386-linux-gnu/libsqlite3.so.0* >/dev/null 2>&1; then exit 0; fi
SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  $SUDO dpkg --add-architecture i386
fi
$SUDO apt-get update || echo "setup: apt-get update reported an error; going on" >&2
tmp=$(mktemp -d)
( cd "$tmp" && apt-get download libsqlite3-0:i386 ) || { echo "setup: cannot download libsqlite3-0:i386" >&2; rm -rf "$tmp"; exit 1; }
mkdir -p "$dest"
dpkg-deb -x "$tmp"/libsqlite3-0_*_i386.deb "$dest"
rm -rf "$tmp"
ls "$dest"/usr/lib/i386-linux-gnu/libsqlite3.so.0* >/dev/null
