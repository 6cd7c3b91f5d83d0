#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs the
# consumer program twice: once with find_package(Fennick), once with pkg-config.
set -euo pipefail
build=$1 consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
for program in consumer observable_property serial_queue cancellation_group; do
  LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-build/$program" | grep -q "^$program: ok$"
done

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
g++ -std=c++20 "$consumer/main.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs fennick)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer" | grep -q "^consumer: ok$"
echo "installed package builds outside programs"

# fennick-gtk, where it was built: the same two ways.
if [[ -f "$work/prefix/lib/pkgconfig/fennick-gtk.pc" ]]; then
  gtk_consumer="$(dirname "$consumer")/gtk-consumer"
  cmake -S "$gtk_consumer" -B "$work/gtk-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
  cmake --build "$work/gtk-build" >/dev/null
  LD_LIBRARY_PATH="$work/prefix/lib" "$work/gtk-build/gtk-consumer" | grep -q "^gtk consumer: ok$"
  g++ -std=c++20 "$gtk_consumer/main.cpp" -o "$work/pc-gtk-consumer" $(pkg-config --cflags --libs fennick-gtk)
  LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-gtk-consumer" | grep -q "^gtk consumer: ok$"
  echo "installed fennick-gtk builds outside programs"
fi
