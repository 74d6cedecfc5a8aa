#!/usr/bin/env bash
# Builds a program outside of this project with what an installation offers, both ways.
# Usage: installed_package.sh SOURCE-FOLDER BUILD-FOLDER
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cp "$source/client/bootstrap/main.cpp" "$work/"
cat >"$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(launcher LANGUAGES C CXX)
find_package(tavro REQUIRED)
add_executable(launcher main.cpp)
target_link_libraries(launcher tavro::start)
END
cmake -G Ninja -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build"
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name tavro.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046  # words of a command line
c++ -std=c++20 "$work/main.cpp" -o "$work/plain" $(pkg-config --cflags --libs tavro)
for program in "$work/build/launcher" "$work/plain" "$work/prefix/bin/tavro-bootstrap"; do
  "$program" --help | grep -q '^Usage: '
done
"$work/prefix/bin/tavro-publish" --help >/dev/null
