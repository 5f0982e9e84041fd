#ifndef VELMORA_GLOBAL_H
#define VELMORA_GLOBAL_H

// The one export macro of the library. Everything is hidden by default;
// only what carries VELMORA_EXPORT reaches the host.
#if defined(_WIN32)
#  if defined(VELMORA_BUILD_LIBRARY)
#    define VELMORA_EXPORT __declspec(dllexport)
#  else
#    define VELMORA_EXPORT __declspec(dllimport)
#  endif
#else
#  define VELMORA_EXPORT __attribute__((visibility("default")))
#endif

#endif
