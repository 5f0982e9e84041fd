#!/usr/bin/env bash
# The 32-bit build (ILP32, as on the 32-bit Windows target: long is 32 bits):
# the library, the simulator and the C-interface tests, built with -m32 and
# run. Debian's multiarch install of the i386 Qt packages fails whenever the
# i386 and amd64 versions drift apart, so they are fetched with
# `apt-get download` through a private package list and unpacked into
# BUILD/sysroot; the system is not changed. The C library and the C++
# runtime are the multilib ones (gcc-multilib, g++-multilib); moc and uic are
# the machine's own.
# Run by scripts/velmora.sh i386 (which installs the multilib compilers);
# `scripts/i386.sh fetch` only fetches and unpacks the packages.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VELMORA_I386_BUILD_DIR:-$root/build-i386}
jobs=${VELMORA_JOBS:-$(nproc)}
sysroot=$build/sysroot
lib=$sysroot/usr/lib/i386-linux-gnu
libs=$lib:$sysroot/lib/i386-linux-gnu   # some packages still install into /lib

# What libQt5{Core,Network,Gui,Widgets,Test} load, found by following their
# DT_NEEDED entries; qtbase5-dev, qt5-qmake and libgl-dev for the headers, CMake files,
# mkspecs and link names.
i386_packages=(qtbase5-dev qt5-qmake libgl-dev libqt5core5a libqt5gui5 libqt5network5 libqt5test5 libqt5widgets5
  libbrotli1 libbsd0 libcom-err2 libdouble-conversion3 libfreetype6 libgl1 libglib2.0-0 libglvnd0 libglx0
  libgraphite2-3 libgssapi-krb5-2 libharfbuzz0b libicu72 libk5crypto3 libkeyutils1 libkrb5-3
  libkrb5support0 libmd0 libmd4c0 libpcre2-16-0 libpcre2-8-0 libpng16-16 libx11-6 libxau6 libxcb1
  libxdmcp6 libzstd1 zlib1g)

fetch_sysroot() {
  local apt=$build/apt
  local opts=(-o APT::Architecture=i386 -o "APT::Architectures::=i386"
              -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status"
              -o Dir::Cache="$apt/cache" -o Debug::NoLocking=1)
  mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$apt/debs" "$sysroot"
  touch "$apt/status"
  # A mirror caught mid-sync fails one index now and then: retry, and go on
  # with what came if it keeps failing (the download then says what is missing).
  apt-get "${opts[@]}" -q update || { sleep 5; apt-get "${opts[@]}" -q update; } || true
  (cd "$apt/debs" && apt-get "${opts[@]}" -q download "${i386_packages[@]/%/:i386}")
  for deb in "$apt/debs"/*.deb; do
    dpkg-deb -x "$deb" "$sysroot"
  done
  # The CMake files of Qt name moc and uic below their own prefix.
  mkdir -p "$sysroot/usr/lib/qt5"
  ln -sfn /usr/lib/qt5/bin "$sysroot/usr/lib/qt5/bin"
  touch "$sysroot/.complete"
}

if [ "${1:-}" = fetch ] || [ ! -e "$sysroot/.complete" ]; then
  fetch_sysroot
fi
[ "${1:-}" = fetch ] && exit 0

export LD_LIBRARY_PATH=$libs${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
cmake -S "$root" -B "$build/tree" -G Ninja -DVELMORA_PROGRAMS=OFF -DVELMORA_TESTS=ON \
  -DCMAKE_C_FLAGS="-m32 -Werror" -DCMAKE_CXX_FLAGS="-m32 -Werror" -DCMAKE_LIBRARY_ARCHITECTURE=i386-linux-gnu \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,$libs" -DCMAKE_SHARED_LINKER_FLAGS="-Wl,-rpath-link,$libs" \
  -DCMAKE_PREFIX_PATH="$sysroot/usr" -DQt5_DIR="$lib/cmake/Qt5"
cmake --build "$build/tree" -j "$jobs" --target Velmora velmora-sim capi_registry capi_ops capi_faults \
  c_host c_with_sim c_dlopen
readelf -h "$build/tree/libVelmora.so" | grep -q 'Class: *ELF32' || { echo "i386: the library is not 32-bit" >&2; exit 1; }
cd "$build/tree"
ctest --output-on-failure -j "$jobs" -R '^(capi_|c_)'
