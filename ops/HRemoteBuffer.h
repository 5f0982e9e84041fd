#ifndef HREMOTEBUFFER_H
#define HREMOTEBUFFER_H

#include "HProtocol_Client.h"
#include "ThreadTexts.h"

#include <QByteArray>
#include <QList>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <mutex>

// Streams program text to one channel of a controller over a connection and
// thread of its own. The host queues text (write/clear) and polls state and
// room; the thread sends the queued requests one at a time and follows the
// controller's flow control (busy -> send next, denied file -> announce again,
// parameter error -> resend).
//
// Threading: the state, the connected flag and the sending marker are atomics
// because the host reads them without locking. The queue and the byte counter
// are guarded by the buffer's mutex; the state text by a lock of its own
// (standard mutexes, which ThreadSanitizer can follow).
// Host-side requests are built with a builder of their own so that the
// thread's send-next build (which waits 50 ms) never holds the host out.
//
// Lifetime: a buffer is made by open() and ends with close(). close() frees it
// through the event loop when the buffer's home thread runs one (the
// application's thread, or a thread calling close() from inside its loop);
// otherwise a short-lived reaper waits for the thread to end and deletes it,
// so a host without QCoreApplication does not leak the object and its thread.
// Every live buffer is in a handle table; the C entry points look a handle up
// there (under the table's lock) before using it, so a handle used after
// close() answers like a null handle once the buffer is gone instead of
// touching freed memory.
class HRemoteBuffer : public QThread, public HProtocol_Client
{
    Q_OBJECT

public:
    enum Mode : int { MdiMode = 0, DncMode = 1 };

    enum State : int {
        StateWorking = 0,     // requests queued or the last reply was good
        StateBusy = 1,        // controller busy: poll with send next
        StateAnnounce = 2,    // connected, file to be announced (again)
        StateClosed = 3,      // not connected or closed
        StateError = 4,       // resend the current request
        StateIdle = 5         // queue empty
    };

    enum : int {
        kCapacity = 102400,     // MDI bytes between two clears
        kMaxQueued = 1000,      // DNC requests waiting to be sent
        kPieceSize = 480,       // text per append request
        kReplyWaitMs = 500,     // connect and reply wait, never repeated
        kIdleSleepMs = 20,      // state 4 with nothing to resend
        kMaxDropped = 64 * 1024, // bytes past a reply's size dropped at most
        kTailSleepMs = 200,     // before disconnecting at the end
        kCloseWaitMs = 100,
        kRepeatIntervalMs = 11  // least time from a request to its repeat
    };

    // Sending marker values.
    enum : int { ReplyHandled = 1, WaitingReply = 2 };

    // Makes and starts a buffer; null when the arguments are refused
    // (null address, mode not 0/1, channel not 1..99).
    static HRemoteBuffer *open(const char *address, unsigned mode, unsigned channel);

    // Runs f on the live buffer behind `handle` while holding the handle
    // table's lock, or returns nullResult for a null or unknown handle.
    template <typename R, typename F>
    static R withHandle(void *handle, R nullResult, F f)
    {
        std::lock_guard<std::mutex> lock(handleLock());
        HRemoteBuffer *buffer = lookup(handle);
        return buffer ? f(buffer) : nullResult;
    }

    // bufClose: 1, or 0 for a null or unknown handle.
    static int close(void *handle);

    ~HRemoteBuffer() override;

    // Host side: results as the C entry points give them.
    int write(const char *text);
    int clear();
    int validCount();
    int state() const { return m_state.load(); }
    // The state text, owned by the buffer: each calling thread gets a copy
    // of its own, which stays put until that thread asks again and the
    // text has changed.
    char *stateInfo();

    int mode() const { return m_mode; }
    int channel() const { return m_channel; }
    QByteArray address() const { return m_address; }
    int queued();
    qint64 bytesWritten();

    // Buffers opened and not yet freed.
    static int liveCount();
    bool isConnected() const { return m_connected.load(); }

protected:
    void run() override;

    void onReciveCmdSetFileInf(int state) override;
    void onReciveCmdAppendTxt(int state) override;
    void onReciveCmdOverWriteTxt(int state) override;
    void onReciveCmdFileEnd(int state) override;
    void onReciveCmdRequestSendNext(int state) override;

private:
    HRemoteBuffer(const QByteArray &address, int mode, int channel);

    const char *fileName() const;
    int fileType() const;
    // The thread's state changes; a closing buffer stays closed.
    void setState(int state);
    // Sets the stop flag and wakes the thread wherever it waits.
    void stopThread();
    void setStateInfo(const char *text);
    void onTextReply(int state, const char *okText, const char *busyText);
    // Builds one frame with the host-side builder and copies it out
    // (an empty array when the builder refuses, e.g. a 480-byte piece).
    QByteArray hostFrame(int length) const;
    void scheduleDeletion();

    static std::mutex &handleLock();
    static HRemoteBuffer *lookup(void *handle);

    const QByteArray m_address;
    const int m_mode;
    const int m_channel;

    std::atomic<int> m_state{StateClosed};
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::atomic<int> m_sending{0};
    bool m_closing = false;               // under the handle table's lock

    std::mutex m_mutex;                   // queue and bytes written
    std::condition_variable m_wake;       // the idle thread waits here for work or the close
    QList<QByteArray> m_queue;
    qint64 m_bytesWritten = 0;

    std::mutex m_infoLock;                // state text
    QByteArray m_stateInfo;
    ThreadTexts m_stateInfoOut;           // the copies handed to the host

    QByteArray m_current;                 // thread only
    quint8 m_tx[kBufferSize];
    quint8 m_rx[kBufferSize];

    // Host-side frames (write, clear) are built here, under m_mutex.
    HProtocol_Client m_hostBuilder;
    quint8 m_hostTx[kBufferSize];
};

#endif
