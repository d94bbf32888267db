#!/usr/bin/env bash
# The Linux orogen (build/) and orogen.exe under Wine (build-windows/) build
# the same networks into byte-identical r32 files, whatever the thread
# count. The PNGs orogen.exe writes with its built-in encoder are read back
# by the Linux orogen (libpng) and must give the same samples as the Linux
# PNGs. Run by .ci/windows.sh after the cross build.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
linux=$root/build
windows=$root/build-windows
wine=$root/cmake/wine-run.sh
export WINEPREFIX=${WINEPREFIX:-$windows/wine-prefix}

# The Linux tool, configured if need be and brought up to date.
./scripts/deps.sh
if [ ! -f "$linux/CMakeCache.txt" ]; then
  cmake -S . -B "$linux" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$linux" -j2 --target orogen BaseKit64 >/dev/null
[ -x "$windows/cli/orogen.exe" ] || { echo "cross-platform: no $windows/cli/orogen.exe" >&2; exit 1; }

work=$windows/cross-platform
rm -rf "$work"
mkdir -p "$work"
cd "$work"  # relative paths only: Wine sees this folder on drive Z:
cp "$root/examples/demo.json" "$root/examples/every-device.json" "$root/examples/colours.r32" .

failed=0
compared=0
for net in demo every-device; do
  # No --threads: one thread per core.
  for threads in default 1 4; do
    options=(build "$net.json" --format png,r32 --quiet --preview)
    [ "$threads" = default ] || options+=(--threads "$threads")
    "$linux/cli/orogen" "${options[@]}" -o "linux-$net-$threads"
    "$wine" "$windows/cli/orogen.exe" "${options[@]}" -o "windows-$net-$threads"
    mapfile -t files < <(cd "linux-$net-$threads" && ls -- *.r32)
    if [ "${#files[@]}" -eq 0 ]; then
      echo "cross-platform: $net wrote no r32 file" >&2
      failed=1
    fi
    for f in "${files[@]}"; do
      for other in "windows-$net-$threads" "linux-$net-default"; do
        compared=$((compared + 1))
        if ! cmp -- "linux-$net-$threads/$f" "$other/$f"; then
          echo "cross-platform: $net, threads $threads: $other/$f differs" >&2
          failed=1
        fi
      done
    done
    if [ "$(cd "windows-$net-$threads" && ls -- *.r32 | tr '\n' /)" != "$(printf '%s/' "${files[@]}")" ]; then
      echo "cross-platform: $net, threads $threads: the two builds wrote different files" >&2
      failed=1
    fi
  done
done

# The same pictures in the PNGs: both read by File Input into r32 files.
png_size() {  # width and height from the IHDR chunk
  od -An -tu1 -j16 -N8 "$1" | awk '{print $1*16777216 + $2*65536 + $3*256 + $4, $5*16777216 + $6*65536 + $7*256 + $8}'
}
pngs=0
for png in windows-demo-default/*.png windows-every-device-default/*.png; do
  dir=$(dirname "$png")
  name=$(basename "$png" .png)
  read -r width height < <(png_size "$png")
  kind=heightfield
  [ "$(od -An -tu1 -j25 -N1 "$png" | tr -d ' ')" = 2 ] && kind=bitmap
  cat >"check-${dir#windows-}-$name.json" <<EOF
{"world": {"resolution": [$width, $height]},
 "devices": [
  {"id": "windows", "type": "File Input", "file": "$png", "kind": "$kind"},
  {"id": "linux", "type": "File Input", "file": "linux-${dir#windows-}/$name.png", "kind": "$kind"}]}
EOF
  if ! "$linux/cli/orogen" build "check-${dir#windows-}-$name.json" -o "check-${dir#windows-}-$name" --format r32 --quiet ||
     ! cmp -- "check-${dir#windows-}-$name/windows.r32" "check-${dir#windows-}-$name/linux.r32"; then
    echo "cross-platform: $png does not hold the pixels of the Linux PNG" >&2
    failed=1
  fi
  pngs=$((pngs + 1))
done

echo "cross-platform: $compared r32 comparisons and $pngs PNGs checked, $([ "$failed" = 0 ] && echo all identical || echo DIFFERENCES)"
exit "$failed"
