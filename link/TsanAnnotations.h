#ifndef TSANANNOTATIONS_H
#define TSANANNOTATIONS_H

// Hand-offs that ThreadSanitizer cannot see by itself, because they happen
// inside Qt, which is not instrumented (a contended QMutex, QThread::wait()).
// release() on one side and acquire() on the other on the same address tell
// it that everything before the release happens before the acquire. Outside
// a ThreadSanitizer build both are empty.

#if defined(__SANITIZE_THREAD__)
#  define VELMORA_TSAN_ANNOTATIONS 1
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define VELMORA_TSAN_ANNOTATIONS 1
#  endif
#endif

#ifdef VELMORA_TSAN_ANNOTATIONS
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
inline void tsanAcquire(const void *address) { __tsan_acquire(const_cast<void *>(address)); }
inline void tsanRelease(const void *address) { __tsan_release(const_cast<void *>(address)); }
#else
inline void tsanAcquire(const void *) {}
inline void tsanRelease(const void *) {}
#endif

#endif
