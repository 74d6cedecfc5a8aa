#!/usr/bin/env bash
# Builds the examples, and the lines that docs/launcher.md shows, outside of this project with what an
# installation offers, both ways. Usage: installed_package.sh SOURCE-FOLDER BUILD-FOLDER
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cp -r "$source/examples" "$source/client/bootstrap/main.cpp" "$work/"

# The page's lines of C++, with the headers that stand beside them.
page=$source/docs/launcher.md
shown() { sed -n "/^## $1/,/^## /s/^    //p" "$page"; }
included() { grep -oE "$1" | sort -u | sed 's/.*/#include "&"/'; }
{
  included '[a-z_/]+/[a-z_]+\.h' <"$page"
  echo 'using namespace tavro;'
  echo 'int updates(const std::filesystem::path& root, const Progress& progress,'
  echo '            const StagingPhase& phase) {'
  shown Updates
  printf 'return 0; }\nint removal(const std::filesystem::path& root, const std::string& build) {\n'
  shown Removal
  printf 'return 0; }\nint main() {}\n'
} >"$work/page.cpp"

# What the page of games shows stands in the examples, word for word.
while read -r line; do
  grep -qxF -- "$line" <(sed 's/^ *//' "$work"/examples/games/main.cpp "$work"/examples/game/main.c) || {
    echo "docs/games.md shows what no example has: $line" >&2
    exit 1
  }
done < <(sed -n 's/^    *//p' "$source/docs/games.md")

# The examples' own lists of sources, read without this project's functions.
{
  printf 'cmake_minimum_required(VERSION 3.25)\nproject(launchers LANGUAGES C CXX)\n'
  cat <<'END'
function(tavro_program name)
  cmake_parse_arguments(PROGRAM "" "" "LINKS;SOURCES" ${ARGN})
  add_executable(${name} ${PROGRAM_SOURCES})
  target_link_libraries(${name} PRIVATE ${PROGRAM_LINKS})
endfunction()
add_executable(bootstrap main.cpp)
add_executable(my-launcher page.cpp)
END
  shown Building | grep -E '^(find_package|target_link_libraries)'
  echo 'target_link_libraries(bootstrap tavro::start)'
  printf 'add_subdirectory(%s)\n' examples/launcher examples/setup-progress examples/games
} >"$work/CMakeLists.txt"
cmake -G Ninja -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" -j 2

PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name tavro.pc)")
export PKG_CONFIG_PATH
plain() { # NAME SOURCE...
  # shellcheck disable=SC2046  # words of a command line
  c++ -std=c++20 -DEXAMPLE_BUILD='"1.0.0"' "${@:2}" -o "$work/plain-$1" $(pkg-config --cflags --libs tavro)
}
plain bootstrap "$work/main.cpp"
plain page "$work/page.cpp"
plain launcher "$work"/examples/launcher/{console,updates}.cpp

for program in "$work"/build/bootstrap "$work"/plain-bootstrap "$work/prefix/bin/tavro-bootstrap" \
  "$work"/build/examples/setup-progress/example-setup-progress; do
  "$program" --help | grep -q '^Usage: '
done
"$work/build/my-launcher"
mkdir -m 700 "$work/games"
[ -z "$("$work/build/examples/games/example-games" "$work/games" list)" ]
# A game needs its one header and nothing else.
cc -std=gnu99 -I"$work/prefix/include" "$work/examples/game/main.c" -o "$work/game"
"$work/game" 7 | grep -qx 'Found 7 with [0-9]* guesses.'
"$work/plain-page"
"$work/prefix/bin/tavro-publish" --help >/dev/null
