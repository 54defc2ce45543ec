#!/bin/sh
# Checks the shared object's SONAME, its needed libraries and its dynamic
# symbols: everything exported belongs to the interface, and every name in
# the must-have list is exported.
# usage: check_exports.sh LIBRARY MUST_HAVE_LIST
set -u
lib=$1
must=$2
fail=0

soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libzarncontentsearchutils.so.7" ] || { echo "SONAME is '$soname'"; fail=1; }

for needed in $(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
  case $needed in
    libstdc++.so.*|libm.so.*|libgcc_s.so.*|libc.so.*|ld-linux*.so.*) ;;
    *) echo "needs a library outside the system runtime: $needed"; fail=1 ;;
  esac
done

exported=$(nm -D --defined-only "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' | c++filt)
c_api='^(ZARNQuery(ConnectionInit|ConnectionClose|ConnectionOpen|GetNextRecord|FetchNext|Count|FreeRecord|DocumentFieldGet)|ZARNSearchQuerySend|FILEIDX(GetIndexID|DBPathCompose|DBPathGet|QueuePathCompose|QueuePathGet|Is(Share|Path|FullPath|PathContain)Indexed(Ex)?))$'
class_api='^((vtable|typeinfo|typeinfo name) for )?ZARN::IR::DAEMON::Connection($|::)'
outside=$(printf '%s\n' "$exported" | grep -vE "$c_api" | grep -vE "$class_api" | grep -v '^$')
if [ -n "$outside" ]; then
  echo "exported but not part of the interface:"; printf '  %s\n' "$outside"; fail=1
fi

while IFS= read -r name; do
  case $name in ''|'#'*) continue ;; esac
  printf '%s\n' "$exported" | grep -qxF "$name" || { echo "not exported: $name"; fail=1; }
done < "$must"

# A client library never ends its host process.
enders=$(nm -D --undefined-only "$lib" | awk '{ print $NF }' | grep -xE 'exit|_exit|_Exit|abort|quick_exit' || true)
if [ -n "$enders" ]; then
  echo "references functions that end the process:"; printf '  %s\n' $enders; fail=1
fi

[ $fail -eq 0 ] && echo "exports: $(printf '%s\n' "$exported" | grep -c .) symbols, all in the interface"
exit $fail
