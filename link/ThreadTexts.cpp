#include "ThreadTexts.h"

char *ThreadTexts::store(const QByteArray &text)
{
    std::lock_guard<std::mutex> lock(m_lock);
    QByteArray &mine = m_texts[std::this_thread::get_id()];
    // The same text keeps its bytes: a pointer handed out before stays good.
    if (mine.isNull() || mine != text) {
        mine = text;
        mine.detach();   // shares nothing with the caller's array
    }
    return mine.data();
}
