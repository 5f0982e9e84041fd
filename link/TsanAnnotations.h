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

//
// ignoreBegin()/ignoreEnd() make it skip this thread's memory accesses in
// between: only around a call of Qt's that hands data to another thread
// under Qt's own lock (posting an event), never around code of ours.
#ifdef VELMORA_TSAN_ANNOTATIONS
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();
inline void tsanAcquire(const void *address) { __tsan_acquire(const_cast<void *>(address)); }
inline void tsanRelease(const void *address) { __tsan_release(const_cast<void *>(address)); }
inline void tsanIgnoreBegin() { __tsan_ignore_thread_begin(); }
inline void tsanIgnoreEnd() { __tsan_ignore_thread_end(); }
#else
inline void tsanAcquire(const void *) {}
inline void tsanRelease(const void *) {}
inline void tsanIgnoreBegin() {}
inline void tsanIgnoreEnd() {}
#endif

// Declared first in a thread's run(), so that it is destroyed last: whoever
// waits for the thread and then calls tsanAcquire(address) sees all of it.
struct TsanReleaseAtExit
{
    const void *address;
    ~TsanReleaseAtExit() { tsanRelease(address); }
};

#endif
