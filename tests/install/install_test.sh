#!/usr/bin/env bash
# Installs a build tree into a fresh prefix (with a space in its name) and
# builds a component, a host and a store client against it, once through
# pkg-config and once through find_package, then runs them with no
# LD_LIBRARY_PATH; also runs the installed zlreg --help. The commands are the
# ones the README's "Installing" section shows.
#
# install_test.sh --build DIR --work DIR --cc CC [--cflags FLAGS]
#                 [--toolchain FILE] [--emulator PROGRAM] [--libdir DIR]
#                 [--runtime-lib FILE]...
#   --libdir       the library directory below the prefix (lib, lib/i386-linux-gnu)
#   --runtime-lib  a system library the target lacks on this machine (the i386
#                  SQLite runtime): copied beside the installed libraries,
#                  where their $ORIGIN run path finds it
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build="" work="" cc="cc" cflags="" toolchain="" emulator="" libdir="lib"
runtime_libs=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    --cc) cc=$2; shift 2 ;;
    --cflags) cflags=$2; shift 2 ;;
    --toolchain) toolchain=$2; shift 2 ;;
    --emulator) emulator=$2; shift 2 ;;
    --libdir) libdir=$2; shift 2 ;;
    --runtime-lib) runtime_libs+=("$2"); shift 2 ;;
    *) echo "install_test: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$build" ] && [ -n "$work" ] || { echo "install_test: --build and --work are required" >&2; exit 2; }
unset LD_LIBRARY_PATH PKG_CONFIG_PATH ORLM_COMPONENTS ZLREG_DATABASE
read -r -a cflag_list <<< "$cflags"
run() { if [ -n "$emulator" ]; then "$emulator" "$@"; else "$@"; fi; }
fail() { echo "install_test: $*" >&2; exit 1; }

rm -rf "$work"
mkdir -p "$work"
prefix="$work/kspl prefix"

# ---- install ------------------------------------------------------------
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
lib="$prefix/$libdir"
for f in "${runtime_libs[@]}"; do cp -P "$f" "$lib/"; done

# Run paths: relative to the library itself, never into the build tree.
for f in "$lib/kspl.so" "$lib/liborlm.so.1" "$lib/libzlreg.so.1" "$prefix/bin/zlreg"; do
  [ -e "$f" ] || fail "$f not installed"
  dyn=$(readelf -d "$f")
  grep -q 'R.*PATH.*\[\$ORIGIN' <<<"$dyn" || fail "$f has no \$ORIGIN run path"
  ! grep -F "$build" <<<"$dyn" | grep -qvF "$prefix" || fail "$f names the build tree"
done
readelf -d "$lib/liborlm.so.1" | grep -q 'SONAME.*\[liborlm\.so\.1\]' || fail "liborlm SONAME"
readelf -d "$lib/libzlreg.so.1" | grep -q 'SONAME.*\[libzlreg\.so\.1\]' || fail "libzlreg SONAME"
[ -L "$lib/liborlm.so" ] && [ -L "$lib/libzlreg.so" ] || fail "unversioned links missing"
[ ! -e "$lib/kspl.so.1" ] || fail "kspl.so must keep its exact file name"
# (The test's own prefix may lie inside the build tree: lines naming it are fine.)
! grep -rhF "$build" "$lib/pkgconfig" "$lib/cmake" | grep -qvF -e "$prefix" -e "${prefix// /\\ }" ||
  fail "package files name the build tree"

# The example of kspl.h's header comment, exactly as written there.
sed -n '/^ \* Example/,/^ \*\/$/p' "$prefix/include/kspl/kspl.h" |
  sed -n 's/^ \*     //p; /^ \*$/s/.*//p' >"$work/header_example.c"
grep -q 'use_kspl' "$work/header_example.c" || fail "no example in kspl.h"

# ---- through pkg-config ---------------------------------------------------
# A .pc reached through a symbolic link must still name the real prefix.
mkdir -p "$work/pc-links"
ln -s "$lib/pkgconfig/kspl.pc" "$work/pc-links/kspl.pc"
ln -s "$lib/pkgconfig/zlreg.pc" "$work/pc-links/zlreg.pc"
export PKG_CONFIG_PATH="$work/pc-links"
# pkg-config escapes blanks in paths; eval reads them back as one word each.
eval "kspl_flags=($(pkg-config --cflags --libs kspl))"
eval "zlreg_flags=($(pkg-config --cflags --libs zlreg))"
eval "module=$(pkg-config --variable=module kspl)"
[ "$module" = "$lib/kspl.so" ] || fail "pkg-config module path is '$module'"
out="$work/pkg-config"
mkdir -p "$out"
warn=(-Wall -Wextra -Werror)
"$cc" "${cflag_list[@]}" "${warn[@]}" -shared -fPIC -fvisibility=hidden -o "$out/component.so" \
  "$here/component.c" -I"$here" "${kspl_flags[@]}"
"$cc" "${cflag_list[@]}" "${warn[@]}" -o "$out/host" "$here/host.c" "$work/header_example.c" \
  -I"$here" "${kspl_flags[@]}"
"$cc" "${cflag_list[@]}" "${warn[@]}" -o "$out/store_user" "$here/store_user.c" "${zlreg_flags[@]}"
unset PKG_CONFIG_PATH
run "$out/host" "$module" "$out/component.so"
run "$out/store_user" "$work/pkg-config.db"

# ---- through find_package -------------------------------------------------
# Found through a symbolic link to the prefix, the package names the real one.
ln -s "$prefix" "$work/prefix-link"
cm=(-S "$here" -B "$work/find_package" -DCMAKE_PREFIX_PATH="$work/prefix-link"
    -DCMAKE_C_COMPILER="$cc" -DHEADER_EXAMPLE="$work/header_example.c")
[ -n "$toolchain" ] && cm+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
cmake "${cm[@]}" >"$work/find_package.log"
cmake --build "$work/find_package" >>"$work/find_package.log"
module=$(cat "$work/find_package/kspl-module.txt")
[ "$module" = "$lib/kspl.so" ] || fail "KSPL_MODULE is '$module'"
run "$work/find_package/host" "$module" "$work/find_package/component.so"
run "$work/find_package/store_user" "$work/find_package.db"

# ---- the installed tool -----------------------------------------------------
run "$prefix/bin/zlreg" --help >"$work/zlreg-help.txt"
grep -qi 'usage' "$work/zlreg-help.txt" || fail "zlreg --help printed no usage"
echo "install_test: ok"
