#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks what they
# hold and depend on, then runs zlreg from the unpacked packages (its run
# path must find the libraries beside it). Installing them with apt-get
# needs root and is left to a person: see the README.
# package_test.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1
work=$2
fail() { echo "package_test: $*" >&2; exit 1; }
rm -rf "$work"
mkdir -p "$work"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack failed"; }

deb() { ls "$work"/"$1"_*.deb 2>/dev/null | head -n 1; }
runtime=$(deb kspl)
dev=$(deb kspl-dev)
tool=$(deb kspl-zlreg)
[ -n "$runtime" ] && [ -n "$dev" ] && [ -n "$tool" ] || fail "missing packages: $(ls "$work")"

has() { # package path-regex
  dpkg-deb -c "$1" | awk '{print $6}' | grep -qE "$2" || fail "$(basename "$1") lacks $2"
}
lacks() {
  ! dpkg-deb -c "$1" | awk '{print $6}' | grep -qE "$2" || fail "$(basename "$1") holds $2"
}
has "$runtime" '^\./usr/lib/kspl\.so$'
has "$runtime" '^\./usr/lib/liborlm\.so\.1$'
has "$runtime" '^\./usr/lib/libzlreg\.so\.1\.0\.0$'
lacks "$runtime" '\.h$|\.pc$|^\./usr/lib/liborlm\.so$|^\./usr/bin/'
has "$dev" '^\./usr/include/kspl/kspl\.h$'
has "$dev" '^\./usr/include/kspl/orlm\.h$'
has "$dev" '^\./usr/include/kspl/zlreg\.h$'
has "$dev" '^\./usr/lib/pkgconfig/kspl\.pc$'
has "$dev" '^\./usr/lib/pkgconfig/zlreg\.pc$'
has "$dev" '^\./usr/lib/cmake/kspl/ksplConfig\.cmake$'
has "$dev" '^\./usr/lib/cmake/kspl/ksplConfigVersion\.cmake$'
has "$dev" '^\./usr/lib/liborlm\.so$'
lacks "$dev" '^\./usr/lib/.*\.so\.1'
has "$tool" '^\./usr/bin/zlreg$'

field() { dpkg-deb -f "$1" "$2"; }
grep -q 'libsqlite3-0' <<<"$(field "$runtime" Depends)" || fail "kspl does not depend on libsqlite3-0"
grep -q 'kspl (= ' <<<"$(field "$dev" Depends)" || fail "kspl-dev does not depend on kspl"
grep -q 'kspl (= ' <<<"$(field "$tool" Depends)" || fail "kspl-zlreg does not depend on kspl"

# The .pc inside the package names the package's prefix, /usr, and adds no run path.
mkdir -p "$work/root"
for p in "$runtime" "$dev" "$tool"; do dpkg-deb -x "$p" "$work/root"; done
grep -qx 'prefix=/usr' "$work/root/usr/lib/pkgconfig/kspl.pc" || fail "kspl.pc prefix"
! grep -q 'rpath' "$work/root/usr/lib/pkgconfig/kspl.pc" || fail "kspl.pc adds a run path under /usr"
env -u LD_LIBRARY_PATH "$work/root/usr/bin/zlreg" --help >"$work/zlreg-help.txt"
grep -qi usage "$work/zlreg-help.txt" || fail "zlreg --help printed no usage"
echo "package_test: ok"
