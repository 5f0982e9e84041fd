#ifndef THREADTEXTS_H
#define THREADTEXTS_H

#include <QByteArray>

#include <mutex>
#include <thread>
#include <unordered_map>

// Texts handed to host threads as `char*`: each calling thread has a copy of
// its own, which stays intact until that same thread stores another text,
// whatever other threads do meanwhile. The copies live as long as this
// object: one per thread that ever called.
class ThreadTexts
{
public:
    // Copies `text` for the calling thread and returns its zero-terminated bytes.
    char *store(const QByteArray &text);

private:
    std::mutex m_lock;
    std::unordered_map<std::thread::id, QByteArray> m_texts;
};

#endif
