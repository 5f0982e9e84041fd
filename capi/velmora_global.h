/*
 * Velmora: what the public headers share. Plain C, so that C hosts, C++
 * hosts and the window header can all include it.
 */
#ifndef VELMORA_GLOBAL_H
#define VELMORA_GLOBAL_H

/* The library's version. VELMORA_VERSION compares with VELMORA_VERSION_CHECK,
 * e.g. #if VELMORA_VERSION >= VELMORA_VERSION_CHECK(1, 1, 0). The build reads
 * the three numbers from here. */
#define VELMORA_VERSION_MAJOR 1
#define VELMORA_VERSION_MINOR 1
#define VELMORA_VERSION_PATCH 0

#define VELMORA_VERSION_CHECK(major, minor, patch) (((major) << 16) | ((minor) << 8) | (patch))
#define VELMORA_VERSION \
    VELMORA_VERSION_CHECK(VELMORA_VERSION_MAJOR, VELMORA_VERSION_MINOR, VELMORA_VERSION_PATCH)
#define VELMORA_STRINGIFY_(x) #x
#define VELMORA_STRINGIFY(x) VELMORA_STRINGIFY_(x)
#define VELMORA_VERSION_STRING \
    VELMORA_STRINGIFY(VELMORA_VERSION_MAJOR) "." VELMORA_STRINGIFY(VELMORA_VERSION_MINOR) "." \
    VELMORA_STRINGIFY(VELMORA_VERSION_PATCH)

/* The one export macro of the library. Everything is hidden by default; only
 * what carries VELMORA_EXPORT reaches the host. */
#ifndef VELMORA_EXPORT
#  if defined(_WIN32)
#    if defined(VELMORA_BUILD_LIBRARY)
#      define VELMORA_EXPORT __declspec(dllexport)
#    else
#      define VELMORA_EXPORT __declspec(dllimport)
#    endif
#  else
#    define VELMORA_EXPORT __attribute__((visibility("default")))
#  endif
#endif

/* The calling convention of every C function and of the callback: the C
 * default, named, so that a host built with another default (/Gz, -mrtd)
 * still calls the library correctly. */
#if defined(_WIN32)
#  define VELMORA_CALL __cdecl
#else
#  define VELMORA_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Called when a controller reply reports a failure; the result is ignored. */
typedef int (VELMORA_CALL *VelmoraErrorCallback)(int errorCmd, int cmdState, const char *detail);

/* The version of the library that is loaded, as "MAJOR.MINOR.PATCH"; compare
 * it with VELMORA_VERSION_STRING, the version the host was built against. */
VELMORA_EXPORT const char *VELMORA_CALL velmoraVersion(void);

/* The English text of a status code returned by the C functions (0 success,
 * 1, 3, 4, 6, 7, 100, 111, 112), or a text saying the code is unknown. The
 * text is static: never freed, valid for the life of the library. */
VELMORA_EXPORT const char *VELMORA_CALL velmoraStatusText(long int status);

#ifdef __cplusplus
}
#endif

#endif
