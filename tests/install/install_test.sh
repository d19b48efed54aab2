#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it as a C programmer
# would: a program built through pkg-config and one through find_package
# both run, a 64-bit consumer is refused, and the installed vrkutil works.
# usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "install_test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in lib/libVrkutil.so lib/libVrkutil.so.1 lib/libVrkalloc.so lib/libVrkvfile.so lib/libVrkwin32.so bin/vrkutil \
         include/vrkutil/vrk_pe.h include/vrkutil/vrk_win32.h include/vrkutil/vrk_standin_ctl.h lib/pkgconfig/vrkutil.pc \
         lib/cmake/Vrkutil/VrkutilConfig.cmake share/man/man1/vrkutil.1.gz share/doc/vrkutil/README.md; do
  [ -e "$prefix/$f" ] || fail "missing $f"
done
soname=$(readelf -d "$prefix/lib/libVrkutil.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libVrkutil.so.1 ] || fail "SONAME is '$soname'"

# pkg-config: everything needed to compile and link, and nothing 64-bit.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
flags=$(pkg-config --cflags --libs vrkutil)
libdir=$(pkg-config --variable=libdir vrkutil)
gcc "$src/tests/install/consumer/consumer.c" $flags -Wl,-rpath,"$libdir" -o "$work/by_pkgconfig"
"$work/by_pkgconfig"

# find_package from a prefix that is not /usr; a 64-bit consumer is refused.
cmake -S "$src/tests/install/consumer" -B "$work/cmake32" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake32" >/dev/null
"$work/cmake32/consumer"
if cmake -S "$src/tests/install/consumer" -B "$work/cmake64" -DCMAKE_PREFIX_PATH="$prefix" \
     -DCMAKE_C_FLAGS=-m64 >"$work/cmake64.log" 2>&1; then
  fail "a 64-bit consumer found the i386 package"
fi
grep -q "32bit" "$work/cmake64.log" || fail "the 64-bit refusal does not say why: $(cat "$work/cmake64.log")"

# The installed tool runs from its prefix, without LD_LIBRARY_PATH.
printf '123456789' >"$work/check"
[ "$("$prefix/bin/vrkutil" crc32 "$work/check" | cut -d' ' -f1)" = cbf43926 ] || fail "installed vrkutil crc32"
"$prefix/bin/vrkutil" --help >/dev/null
zcat "$prefix/share/man/man1/vrkutil.1.gz" | grep -q "^\.SS \"scan\"" || fail "manual page without the scan command"
completion=$prefix/share/bash-completion/completions/vrkutil
bash -n "$completion" && grep -q -- "--max-filesize" "$completion" || fail "bash completion"
echo "1 passed, 0 failed"
