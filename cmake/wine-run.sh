#!/usr/bin/env bash
# Runs a Windows program under Wine without a display and passes its exit
# code through. The Wine prefix lives in the build tree (the nearest folder
# upwards with a CMakeCache.txt) unless WINEPREFIX is already set.
set -u

loader=""
for f in "${WINE64:-}" /usr/lib/wine/wine64 /usr/lib/x86_64-linux-gnu/wine/wine64 \
         "$(command -v wine64 2>/dev/null)"; do
  if [ -n "$f" ] && [ -x "$f" ]; then loader="$f"; break; fi
done
if [ -z "$loader" ]; then
  echo "wine-run: no wine64 loader found (run .ci/install-windows-deps.sh)" >&2
  exit 127
fi

server=$(dirname "$loader")/wineserver
[ -x "$server" ] || server=$(command -v wineserver || echo wineserver)

if [ -z "${WINEPREFIX:-}" ]; then
  dir=$PWD
  while [ "$dir" != / ] && [ ! -f "$dir/CMakeCache.txt" ]; do dir=$(dirname "$dir"); done
  if [ "$dir" = / ]; then dir=${XDG_CACHE_HOME:-$HOME/.cache}/basekit64; fi
  export WINEPREFIX=$dir/wine-prefix
fi

export WINEDEBUG=-all
export WINEARCH=win64
# No Mono/Gecko install prompts, no desktop menu entries.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
# Never try to open an X display.
unset DISPLAY WAYLAND_DISPLAY

# Create the prefix once, serialised so parallel tests don't race on it.
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  (
    flock 9
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
      "$loader" wineboot --init </dev/null >/dev/null 2>&1
      # Let the setup finish here; otherwise the first program waits for it.
      "$server" -w
    fi
  ) 9>"$WINEPREFIX.lock"
fi

exec "$loader" "$@"
