#!/bin/sh
# Is the shared library's outside what clients, hosts and other libraries rely on?
#   exported_names_test.sh LIBRARY NAMES [--any-dependency]
# NAMES lists what it must export, neither more nor less. Sanitizer runtimes bring dependencies of
# their own, which --any-dependency allows.
set -eu

library=$1
names=$2
any_dependency=${3-}
status=0

fail() {
  echo "$1" >&2
  status=1
}

exported=$(nm -D --defined-only "$library" | awk '
  $2 == "T" { $2 = "function" }
  $2 ~ /^[BDR]$/ { $2 = "data" }
  { print $2, $3 }' | LC_ALL=C sort)
if ! difference=$(echo "$exported" | diff "$names" -); then
  fail "exported names differ from $names:
$difference"
fi

dynamic=$(readelf -d "$library")

echo "$dynamic" | grep -q 'SONAME.*\[libqelaudit\.so\.1\]' || fail "not libqelaudit.so.1"
# The main loop keeps the address of a function of the library for good.
echo "$dynamic" | grep -q 'FLAGS_1.*NODELETE' || fail "the library can be unloaded"
echo "$dynamic" | grep -q 'FLAGS_1.*NOW' || fail "symbols are bound lazily"
# A host or a test may take the place of any function.
! echo "$dynamic" | grep -q 'SYMBOLIC' || fail "the library's own calls cannot be taken over"

if [ "$any_dependency" != --any-dependency ]; then
  for needed in $(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    case $needed in
      libaudit.so.1 | libc.so.6 | libstdc++.so.6) ;;
      libqelbase.so* | libqelframe.so* | libqelxtest.so*) ;;
      *) fail "unexpected dependency: $needed" ;;
    esac
  done
fi
for needed in libaudit libqelbase libqelframe; do
  echo "$dynamic" | grep -q "NEEDED.*\[$needed\.so" || fail "$needed is not a dependency"
done

exit $status
