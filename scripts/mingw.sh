#!/usr/bin/env bash
# The Windows code paths, compiled with Debian's mingw-w64 for 32-bit Windows
# (i686, the target). Debian has no Qt for mingw, so nothing here runs and
# the library is not linked; what is checked:
#   - every source of the library (link, ops, capi, display, config) compiles
#     for Windows without a warning, against the machine's Qt 5 headers
#     (Q_OS_WIN code paths included; moc output is not compiled);
#   - the public headers compile as C and C++ beside <winsock2.h> and
#     <windows.h>, and VelmoraWindow.h beside velmora.h;
#   - every function and the callback type stay __cdecl when stdcall is the
#     default (-mrtd, as /Gz does for MSVC);
#   - the own-socket example host compiles and links against an import
#     library of the header's functions, ws2_32 before it.
# Run by scripts/velmora.sh mingw. Everything is written below BUILD_DIR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${VELMORA_MINGW_BUILD_DIR:-$root/build-mingw}
jobs=${VELMORA_JOBS:-$(nproc)}
cc=i686-w64-mingw32-gcc-posix
cxx=i686-w64-mingw32-g++-posix   # the posix thread model: std::mutex and std::thread
qt=$(qmake -qt=qt5 -query QT_INSTALL_HEADERS 2>/dev/null || echo /usr/include/x86_64-linux-gnu/qt5)
warn=(-Wall -Wextra -Werror)
rm -rf "$out"
mkdir -p "$out/ui"

for form in "$root"/display/*.ui "$root"/config/*.ui; do
  /usr/lib/qt5/bin/uic "$form" -o "$out/ui/ui_$(basename "${form%.ui}").h"
done
qt_includes=()
for module in "" QtCore QtNetwork QtGui QtWidgets; do
  qt_includes+=(-isystem "$qt/$module")
done
echo "== the library's sources for Windows ($cxx, -fsyntax-only)"
printf '%s\n' "$root"/{link,ops,capi,display,config}/*.cpp |
  xargs -P "$jobs" -I{} "$cxx" -std=c++17 -fsyntax-only "${warn[@]}" -DVELMORA_BUILD_LIBRARY \
    "${qt_includes[@]}" -I"$root/link" -I"$root/ops" -I"$root/capi" -I"$root/display" -I"$root/config" \
    -I"$out/ui" {}

echo "== the public headers beside the Windows headers, and their calling convention"
functions=$(grep -h -o 'VELMORA_CALL [A-Za-z_][A-Za-z0-9_]*(' "$root"/capi/velmora.h "$root"/capi/velmora_prefixed.h \
              "$root"/capi/velmora_global.h | sed 's/VELMORA_CALL \(.*\)(/\1/' | sort -u)
cat > "$out/headers.c" <<'C'
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include "velmora_prefixed.h"
int host(SOCKET s, const struct sockaddr *a) { return connect(s, a, sizeof *a) == 0 && velmora_connect(1); }
C
cat > "$out/classic.c" <<'C'
#include "velmora.h"
int classic(void) { return connect(1) && overwrite(0, 1, 1) == 0; }
C
cat > "$out/window.cpp" <<'C'
#include "velmora.h"
#include "velmora_prefixed.h"
#include "VelmoraWindow.h"
int both() { return connect(1) == velmora_connect(1); }
C
# With stdcall as the default (-mrtd, like /Gz), a function or callback
# type without VELMORA_CALL would turn stdcall and fail its assertion.
{
  echo '#include "velmora.h"'
  echo '#include "velmora_prefixed.h"'
  echo 'template <typename R, typename... A> constexpr bool isCdecl(R (__cdecl *)(A...)) { return true; }'
  echo 'template <typename R, typename... A> constexpr bool isCdecl(R (__stdcall *)(A...)) { return false; }'
  echo 'static_assert(isCdecl(VelmoraErrorCallback()), "VelmoraErrorCallback");'
  for f in $functions; do echo "static_assert(isCdecl(&$f), \"$f\");"; done
} > "$out/conventions.cpp"
for std in c99 c11; do
  "$cc" -std=$std -pedantic "${warn[@]}" -c -I"$root/capi" "$out/headers.c" -o "$out/headers-$std.o"
  "$cc" -std=$std -pedantic "${warn[@]}" -c -I"$root/capi" "$out/classic.c" -o "$out/classic-$std.o"
done
"$cxx" -std=c++17 "${warn[@]}" -fsyntax-only "${qt_includes[@]}" -I"$root/capi" -I"$root/display" "$out/window.cpp"
"$cxx" -std=c++17 "${warn[@]}" -fsyntax-only -mrtd -I"$root/capi" "$out/conventions.cpp"

echo "== the own-socket host, linked against an import library of the header's functions"
{
  echo "LIBRARY Velmora.dll"
  echo "EXPORTS"
  printf '    %s\n' $functions
} > "$out/Velmora.def"
i686-w64-mingw32-dlltool -d "$out/Velmora.def" -l "$out/libVelmora.dll.a" -D Velmora.dll
"$cc" -std=c99 "${warn[@]}" -I"$root/capi" "$root/examples/own-socket-host/own_socket_host.c" \
  -o "$out/own_socket_host.exe" -lws2_32 "$out/libVelmora.dll.a"
echo "mingw: $(echo $functions | wc -w) functions; all Windows compile checks passed"
