#!/usr/bin/env bash
# The library as an integrator gets it: install the build into a prefix, then
# build the example hosts against that prefix, through find_package and
# through pkg-config, embed the source tree in a host project with
# add_subdirectory, and run the hosts against velmora-sim from the prefix.
# Run by scripts/velmora.sh package (which installs packages and builds).
# Everything is written below BUILD_DIR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VELMORA_BUILD_DIR:-$root/build}
jobs=${VELMORA_JOBS:-$(nproc)}
prefix=$build/prefix
hosts=$build/hosts
stamp=$build/package.stamp

rm -rf "$prefix" "$hosts"
mkdir -p "$hosts"
touch "$stamp"
cmake --install "$build" --prefix "$prefix"
echo "== installed into $prefix:"
(cd "$prefix" && find . \( -type f -o -type l \) | sort | sed 's|^\./|  |')

# Runs a host with a simulated controller from the prefix on ADDRESS.
with_sim() {
  local address=$1; shift
  "$prefix/bin/velmora-sim" --address "$address" --quiet &
  local sim=$!
  local status=0
  "$@" "$address" || status=$?
  kill "$sim"
  wait "$sim" 2>/dev/null || true
  return $status
}

echo "== find_package(Velmora): window_host and own_socket_host"
cmake -S "$root/examples/cmake-host" -B "$hosts/find-package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$hosts/find-package" -j "$jobs"
(cd "$hosts/find-package" && QT_QPA_PLATFORM=offscreen with_sim 127.0.0.200 ./window_host)
(cd "$hosts/find-package" && with_sim 127.0.0.201 ./own_socket_host)

echo "== pkg-config velmora-prefixed: own_socket_host"
mkdir -p "$hosts/pkg-config"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig" make -C "$hosts/pkg-config" -f "$root/examples/own-socket-host/Makefile"
(cd "$hosts/pkg-config" && LD_LIBRARY_PATH="$prefix/lib" with_sim 127.0.0.202 ./own_socket_host)

echo "== add_subdirectory: the source tree embedded"
# Same compiler flags as the main build, so ccache serves most of it.
export CCACHE_NOHASHDIR=1
cmake -S "$root/examples/cmake-host" -B "$hosts/embedded" -G Ninja -DVELMORA_SOURCE_DIR="$root" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
# Configured without looking for Qt5 Test, and nothing in the host's directory.
if grep -q '^Qt5Test_DIR' "$hosts/embedded/CMakeCache.txt" || [ -e "$hosts/embedded/Velmora.xml" ]; then
  echo "package: the embedded project looked for Qt5 Test or wrote into the host's build directory" >&2
  exit 1
fi
cmake --build "$hosts/embedded" -j "$jobs"
(cd "$hosts/embedded" && QT_QPA_PLATFORM=offscreen with_sim 127.0.0.203 ./window_host)
(cd "$hosts/embedded" && with_sim 127.0.0.204 ./own_socket_host)
echo "== the Python module from the prefix, on the prefix's library"
# (retries while the simulator comes up, like the example hosts)
(unset VELMORA_LIBRARY; with_sim 127.0.0.205 python3 -c '
import os, sys, time
sys.path.insert(0, sys.argv[1])
import velmora
loaded = os.path.realpath(velmora.load_library()._name)
assert loaded.startswith(os.path.realpath(sys.argv[2]) + os.sep), loaded
for attempt in range(50):
    try:
        with velmora.Controller(sys.argv[3]) as cnc:
            cnc.write({"usr5": 7})
            assert cnc.read(["usr5"]) == [7]
        break
    except velmora.VelmoraError:
        time.sleep(0.1)
else:
    sys.exit("the installed module could not reach the simulator")
print("python: ok")' "$prefix/share/velmora/python" "$prefix/lib")
outside=$(find "$root" -path "$build" -prune -o -newer "$stamp" -type f -print)
if [ -n "$outside" ]; then
  echo "package: written outside the build tree:" $outside >&2
  exit 1
fi
echo "package: all host checks passed"
