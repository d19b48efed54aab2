#!/usr/bin/env bash
# Checks the binary interface of libVrkutil.so:
#  - it defines exactly the functions of the export list, each as NAME@@Base;
#  - it needs libVrkalloc.so, libVrkvfile.so and libc, nothing else (the
#    sanitizer runtimes are allowed in a sanitized build);
#  - it imports nothing from the C++ runtime.
set -u
lib=$1 exports=$2 mode=${3:-plain}
fail=0

defined=$(readelf --dyn-syms -W "$lib" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $4 != "SECTION" && $8 != "" && $8 != "Base" {print $8}' | sort)
expected=$(sed 's/$/@@Base/' "$exports" | grep -v '^@@Base$' | sort)
if [ "$defined" != "$expected" ]; then
  echo "exported symbols differ from the export list (< exported, > expected):"
  diff <(echo "$defined") <(echo "$expected")
  fail=1
fi

needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
if [ "$mode" = sanitized ]; then
  needed=$(echo "$needed" | grep -v -E '^lib(asan|ubsan)\.so|^libstdc\+\+|^libm\.so|^libgcc_s')
fi
want=$(printf 'libVrkalloc.so\nlibVrkvfile.so\nlibc.so.6\n' | sort)
if [ "$needed" != "$want" ]; then
  echo "needed libraries are not exactly libVrkalloc.so, libVrkvfile.so and libc:"
  echo "$needed"
  fail=1
fi

if [ "$mode" != sanitized ]; then
  runtime=$(readelf --dyn-syms -W "$lib" | awk '$7 == "UND" {print $8}' |
    grep -v '@GLIBC' | grep -E '^(_Znw|_Zna|_Zdl|_Zda|__cxa_|__gxx_personality|_Unwind_|_ZTI|_ZTV|_ZSt)' || true)
  if [ -n "$runtime" ]; then
    echo "imports from the C++ runtime:"
    echo "$runtime"
    fail=1
  fi
fi

[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
