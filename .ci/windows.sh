#!/usr/bin/env bash
# Windows x86-64 cross build with MinGW-w64; the test programs run under Wine.
# Fails when the build, the module's export/import check or any test fails,
# or when orogen.exe and the Linux orogen write different bytes
# (.ci/cross-platform.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

bash .ci/install-windows-deps.sh

build=$PWD/build-windows
export WINEPREFIX=$build/wine-prefix
objdump=x86_64-w64-mingw32-objdump

start=$SECONDS
cmake --preset windows
cmake --build --preset windows
echo "windows: configure and build took $((SECONDS - start)) s"

# The module exports exactly the three entry points, and no binary needs a
# MinGW runtime DLL beside it.
status=0
dll=$(find "$build" -path "$WINEPREFIX" -prune -o -name BaseKit64.dll -print | head -n1)
if [ -z "$dll" ]; then
  echo "windows: BaseKit64.dll was not built" >&2
  exit 1
fi
exports=$($objdump -p "$dll" |
  awk '/^\[Ordinal\/Name Pointer\] Table/ {on = 1; next} on && NF == 0 {on = 0} on {print $NF}' |
  sort | tr '\n' ' ')
if [ "$exports" != "GetDevPlugin GetHeaderVersion SetupGlobalAccess " ]; then
  echo "windows: $dll exports '$exports'" >&2
  status=1
fi
while IFS= read -r -d '' bin; do
  bad=$($objdump -p "$bin" | awk '/DLL Name:/ {print $3}' |
    grep -iE '^(libstdc\+\+|libgcc|libwinpthread)' || true)
  if [ -n "$bad" ]; then
    echo "windows: ${bin#"$build"/} needs runtime DLLs: $bad" >&2
    status=1
  fi
done < <(find "$build" -path "$WINEPREFIX" -prune -o -path "$build/CMakeFiles" -prune -o \
  \( -name '*.dll' -o -name '*.exe' \) -type f -print0)
[ "$status" -eq 0 ] || exit "$status"

start=$SECONDS
ctest --preset windows --no-tests=error || status=$?
echo "windows: tests under Wine took $((SECONDS - start)) s"
# Each program's GoogleTest counts, from the log ctest keeps.
awk '/^[0-9]+\/[0-9]+ Testing: / {name = $3}
     /^\[==========\] [0-9]+ tests? from .* ran/ {ran[name] = $2}
     /^\[  PASSED  \] [0-9]+ test/ {passed[name] = $4}
     /^\[  SKIPPED \] [0-9]+ test/ {skipped[name] = $4}
     /^\[  FAILED  \] [0-9]+ test/ {failed[name] = $4}
     END {for (n in ran) printf "windows: %-15s %4d tests: %d passed, %d skipped, %d failed\n",
                                n, ran[n], passed[n], skipped[n], failed[n]}' \
  "$build/Testing/Temporary/LastTest.log" | sort

# Linux and Windows builds of the same networks give the same bytes.
start=$SECONDS
bash .ci/cross-platform.sh || status=1
echo "windows: cross-platform comparison took $((SECONDS - start)) s"

# Leave no wineserver behind.
server=/usr/lib/wine/wineserver
[ -x "$server" ] || server=$(command -v wineserver || true)
[ -z "$server" ] || "$server" -w || true
exit "$status"
