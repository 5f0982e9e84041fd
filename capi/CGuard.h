#ifndef CGUARD_H
#define CGUARD_H

// Every C entry point runs its body through guarded(): no C++ exception
// (std::bad_alloc above all) may unwind into a host written in C, C#,
// Python... Whatever is thrown becomes the function's failure value, the
// one it gives for an unknown controller or a null handle.
template <typename R, typename F>
R guarded(R failure, F &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        return failure;
    }
}

#endif
