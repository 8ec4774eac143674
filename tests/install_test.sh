#!/usr/bin/env bash
# Installs what was built, builds the examples of the modes against it as the project
# tests/consumer/, by CMake and by make with pkg-config, and runs them on a real page.
# Shared libraries are tried as Debian packages and from a FetchContent build too.
#   install_test.sh SOURCE BUILD
set -euo pipefail
source=$1 build=$2
cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
compiler=$(cached CMAKE_CXX_COMPILER)
sanitizers=$(cached VISION_SANITIZE)
flags=${sanitizers:+-fsanitize=$sanitizers}
[ "$(cached VISION_COVERAGE)" != ON ] || flags="$flags --coverage"
scratch=$(mktemp -d)
model_pid=
cleanup() {
  [ -z "$model_pid" ] || kill "$model_pid"
  rm -rf "$scratch"
}
trap cleanup EXIT
fail() { echo "install_test: $*" >&2; exit 1; }

cmake --install "$build" --component examples --prefix "$scratch/examples" > "$scratch/log"
exec 3< <(exec "$scratch/examples/bin/vision-local-model")
model_pid=$!
read -r model_url <&3 || fail "the local model did not start"

# A project of its own: of this tree only the examples are copied.
cp -r "$source/tests/consumer" "$scratch/consumer"
mkdir "$scratch/consumer/examples"
cp -r "$source/examples/modes" "$source/examples/models.hpp" "$scratch/consumer/examples"

consume() {  # consume NAME FOLDER
  echo "install_test: the consumer, $1"
  "$2/logging" > "$scratch/log" || fail "the consumer's logger failed, $1"
  grep -q "^the host's logger: vision: " "$scratch/log" || { cat "$scratch/log"; fail "the host's logger was ignored, $1"; }
  "$source/tests/examples_test.sh" "$2" "$model_url" || fail "the consumer failed, $1"
}

by_cmake() {  # by_cmake NAME CMAKE-OPTION...
  cmake -G Ninja -S "$scratch/consumer" -B "$scratch/$1" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" "${@:2}" > "$scratch/log" ||
    { cat "$scratch/log"; fail "configuring failed, $1"; }
  cmake --build "$scratch/$1" > "$scratch/log" || { cat "$scratch/log"; fail "building failed, $1"; }
  consume "$1" "$scratch/$1"
}

by_pkg_config() {
  PKG_CONFIG_PATH=$(find "$scratch/prefix" -name pkgconfig)
  export PKG_CONFIG_PATH
  CXX=$compiler CXXFLAGS=$flags make -s -j 2 -C "$scratch/consumer" > "$scratch/log" 2>&1 ||
    { cat "$scratch/log"; fail "make failed"; }
  consume "by pkg-config" "$scratch/consumer"
}

# The C interface, for programs that know nothing of C++.
in_c() {
  local folder=$scratch/c
  mkdir "$folder"
  cp "$source/bindings/c/example.c" "$folder"
  cat > "$folder/CMakeLists.txt" << 'END'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(vision_c 0.1 CONFIG REQUIRED)
find_package(Threads REQUIRED)
add_executable(by_cmake example.c)
target_link_libraries(by_cmake PRIVATE vision::c Threads::Threads)
END
  {
    cmake -G Ninja -S "$folder" -B "$folder" "-DCMAKE_PREFIX_PATH=$scratch/prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    cmake --build "$folder"
    PKG_CONFIG_PATH=$(find "$scratch/prefix" -name pkgconfig) pkg-config --cflags --libs vision-c |
      LD_RUN_PATH=$(dirname "$1") xargs cc -std=c99 -D_XOPEN_SOURCE=700 "$folder/example.c" -lpthread -o "$folder/by_pkg_config"
  } > "$scratch/log" 2>&1 || { cat "$scratch/log"; fail "building in C failed"; }
  for program in by_cmake by_pkg_config; do
    "$source/tests/c/example_test.sh" "$folder/$program" "$1" "$scratch/examples/bin/vision-local-model" ||
      fail "the program in C failed, $program"
  done
}

# Debian packages, in a package database of their own that knows what is
# installed here.
as_packages() {
  local root=$scratch/root
  (cd "$build" && cpack -B "$scratch/packages" > "$scratch/log") || { cat "$scratch/log"; fail "cpack failed"; }
  mkdir -p "$root/var/lib"
  cp -r /var/lib/dpkg "$root/var/lib/dpkg"
  local dpkg=(dpkg "--root=$root" --force-not-root --force-script-chrootless --no-triggers)
  "${dpkg[@]}" --install "$scratch"/packages/*.deb > "$scratch/log" 2>&1 || { cat "$scratch/log"; fail "dpkg --install failed"; }
  by_cmake "by CMake from Debian packages" "-DCMAKE_PREFIX_PATH=$root/usr"
  if [ -d "$root/usr/lib/python3" ]; then
    LD_LIBRARY_PATH=$(dirname "$(find "$root/usr/lib" -maxdepth 2 -name libvision_c.so.0.1)") PYTHONPATH=$root/usr/lib/python3/dist-packages \
      PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -c 'import velmora_vision' || fail "the Python package does not load"
  fi
  if [ -d "$root/usr/lib/nodejs" ]; then
    NODE_PATH=$root/usr/lib/nodejs node -e 'require("@velmora/vision").isVisionEnabled()' || fail "the Node package does not load"
  fi
  local package names=()
  for package in "$scratch"/packages/*.deb; do names+=("$(dpkg-deb --field "$package" Package)"); done
  "${dpkg[@]}" --purge "${names[@]}" > "$scratch/log" 2>&1 || { cat "$scratch/log"; fail "dpkg --purge failed"; }
  local left
  left=$(find "$root" -path "$root/var" -prune -o -type f -print -o -type l -print)
  [ -z "$left" ] || fail "the packages left behind: $left"
}

# What the libraries show is what cmake/exports.map lists, and that is what the
# installed headers declare.
exports_are_the_promise() {
  local shown=$scratch/shown listed=$scratch/listed headers=$scratch/headers libraries twice line name form
  libraries=$(find "$scratch/prefix" -name 'libvision.so.0.1' -o -name 'libvision_chromium.so.0.1')
  xargs nm -DC --defined-only <<< "$libraries" | sed -n 's/^[0-9a-f]\+ . //p' > "$shown"
  sed -n 's/^ *\([^ #]*::[^ ]*\);$/\1/p' "$source/cmake/exports.map" > "$listed"
  find "$scratch/prefix/include" -name '*.hpp' -exec cat {} + > "$headers"
  sed 's/?/./g; s/\*/.*/g' "$listed" > "$scratch/patterns"
  ! grep -v -x -f "$scratch/patterns" "$shown" || fail "the libraries show what cmake/exports.map does not list"
  while read -r line; do
    grep -q -x -e "$(sed 's/?/./g; s/\*/.*/g' <<< "$line")" "$shown" || fail "no library shows $line"
    name=${line%::\*} name=${name%\*} name=${name##*::}
    case $line in
      *boost::*) continue ;;
      *::\* | *'?for?'*) form="(class |struct |VISION_STATUS_ERROR\()$name\b" ;;
      *) form="\b$name( =|\()" ;;
    esac
    grep -q -E "$form" "$headers" || fail "no installed header declares $line"
  done < "$listed"
  twice=$(xargs nm -D --defined-only <<< "$libraries" | sed -n 's/^[0-9a-f]\+ T //p' | sort | uniq -d)
  [ -z "$twice" ] || fail "both libraries show $twice"
  # Functions outside classes, templates not counted.
  for name in $(sed '/^template/,/[;{]$/d' "$headers" | grep -oP '^(?!inline|using|#|/)[\w\[][^(=]*\b\K\w+(?=\()'); do
    grep -q -E "::$name(\(|\[abi)" "$shown" || fail "an installed header declares $name, which no library shows"
  done
}

cmake --install "$build" --prefix "$scratch/prefix" > "$scratch/log"
if [ "$(cached VISION_SHARED)" = ON ]; then
  library=$(find "$scratch/prefix" -name libvision.so.0.1)
  soname=$(objdump -p "$library" | sed -n 's/^ *SONAME *//p')
  [ "$soname" = libvision.so.0.1 ] || fail "$library has the SONAME $soname"
  exports_are_the_promise
  missing=$(find "$scratch/prefix" -name libvision_chromium.so.0.1 -exec ldd {} + | grep 'not found' || true)
  [ -z "$missing" ] || fail "the installed libvision_chromium does not find: $missing"
  as_packages
  by_cmake "by FetchContent" "-DVISION_SOURCE=$source" -DBUILD_SHARED_LIBS=ON -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "-DVISION_WARNINGS_AS_ERRORS=$(cached VISION_WARNINGS_AS_ERRORS)"
  [ ! -e "$scratch/by FetchContent/_deps/vision-build/tests" ] || fail "FetchContent builds the tests too"
  [ ! -e "$scratch/by FetchContent/_deps/vision-build/examples" ] || fail "FetchContent builds the examples too"
else
  by_cmake "by CMake" "-DCMAKE_PREFIX_PATH=$scratch/prefix"
fi
by_pkg_config
c_library=$(find "$scratch/prefix" -name libvision_c.so.0.1)
[ -z "$c_library" ] || [ -n "$sanitizers" ] || in_c "$c_library"
echo "install_test: passed"
