#ifndef ASYNCHRONOUSCLIENT_H
#define ASYNCHRONOUSCLIENT_H

#include "ClientLock.h"
#include "HProtocol_Client.h"
#include "ThreadTexts.h"
#include "ValueTable.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QVector>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <functional>
#include <vector>

class QTcpSocket;

// One TCP connection to one controller.
//
// Threads: the socket belongs to this object's own thread (run()), in both
// modes, because a QTcpSocket may only be used from the thread that created
// it and host threads are arbitrary (plain pthreads, no QCoreApplication).
//  - direct mode: the socket thread connects and disconnects. An operation
//    holds the client lock, builds its frame and exchanges it on the
//    socket's descriptor in its own thread (no hand-off, no context switch),
//    while the socket thread is kept out; the caller parses the reply, so
//    handlers run in the caller.
//  - thread mode: the socket thread also runs the scheduler (queued commands
//    and poll slices of registered variables) and parses replies itself.
//    With nothing registered and nothing queued it blocks on a condition.
//
// Locks: m_mutex is the client lock of every operation (one request on the
// wire per client). m_dataMutex guards what host threads and the socket
// thread share: queue, outgoing frames of thread mode, value map, link state
// mirror and the job slot. Order: m_mutex before m_dataMutex; the socket
// thread never takes m_mutex, so an operation that deliberately returns with
// m_mutex held cannot stall the loop.
class AsynchronousClient : public QThread, public HProtocol_Client
{
    Q_OBJECT
public:
    // Bit areas of a channel; the value selects the base word (see bitBase()).
    enum BitType : int {
        BitX = 0,   // 32048
        BitY = 1,   // 32112
        BitF = 2,   // 32176
        BitG = 3,   // 32240
        BitR = 4,   // 32304
        BitK = 5,   // 32592 (above BitA on purpose)
        BitA = 6    // 32560
    };

    typedef int (*ErrorCallback)(int errorCmd, int cmdState, const char *detail);

    // Status codes of the operations.
    enum Status : long {
        StatusOk = 0,
        StatusParError = 1,
        StatusErrorReply = 3,
        StatusQueueFull = 4,
        StatusModeError = 6,
        StatusDisconnected = 7,
        StatusAlarm = 100,
        StatusNoReply = 111,
        StatusNoPoints = 112
    };

    enum : int {
        kPort = 60000,
        kConnectWaitMs = 500,
        kReplyWaitMs = 600,
        kReplyWaits = 3,
        kPollSlice = 62,
        kWaitSliceMs = 20,         // a reply wait notices a stop or disconnect this often
        kDiscardLimit = 64 * 1024, // stale bytes dropped before a request, at most
        kRepeatIntervalMs = 11     // between a refused request and the next: < 100 a second
    };

    explicit AsynchronousClient(QObject *parent = nullptr);
    // Stops the client's thread. A subclass does that itself in its own
    // destructor (requestStop(), wait()): the thread calls virtual handlers.
    ~AsynchronousClient() override;
    // Tells the socket thread to end after its current exchange, without
    // waiting; the destructor waits. Lets an owner stop several clients at
    // once, so their reply waits overlap instead of adding up. The client
    // cannot connect again afterwards.
    void requestStop();

    // ---- Connection lifecycle
    bool tcpConnect(const QByteArray &ip);
    long int tcpDisconnect();
    // 1 = direct mode, 0 = thread mode; a change disconnects first.
    void setSyncMode(int direct);
    int syncMode() const { return m_direct.load(); }
    bool isDirectMode() const { return m_direct.load() != 0; }
    bool isConnectedFlag() const { return m_connected.load(); }

    long int CheckTcpWdt();

    // Called by reply handlers when a reply reports a failure.
    void onErrorOccured(int errorCmd, int cmdState, const char *detail);
    void setErrCallbackFunc(ErrorCallback callback) { m_errorCallback.store(callback); }

    // Debug mask (bit 0 errors, bit 1 details). A non-zero mask installs the
    // file log for the whole process, zero restores the default output.
    void setDebugMask(int mask);
    quint8 debugMask() const { return m_debugMask.load(); }

    // ---- Variables and bits
    long int readVars(long int *addresses, int count, long int *values);
    long int writeVars(long int *addresses, int count, long int *values);
    long int fileReadVars(long int *addresses, int count, long int *values);
    long int fileWriteVars(long int *addresses, int count, long int *values);
    void registerVars(long int *addresses, int count);
    void removeVars(long int *addresses, int count);
    void clearVars();
    long int readBits(long int channel, BitType type, long int *bits, int count, long int *values);
    long int registerBits(long int channel, BitType type, long int *bits, int count);
    long int removeBits(long int channel, BitType type, long int *bits, int count);

    // Pure helpers of the bit addressing.
    static qint32 bitBase(int type);
    static qint32 bitWordAddress(long int channel, int type, long int bit);
    static int bitInWord(long int bit);

    // Snapshot of the value map (registered variables and last read values).
    QMap<qint32, qint32> valueMap() const;

    // ---- Queue and link state, readable from any thread
    int queueLimit() const { return m_queueLimit.load(); }
    void setQueueLimit(int limit) { m_queueLimit.store(limit); }
    int queuedCount() const;
    bool isSocketConnected() const;
    QString socketErrorText() const;
    int exchangeState() const { return m_exchangeState.load(); }

    // Flags of the last steps of the variable operations (detail logging).
    bool currentRdAddressFlag() const { return m_currentRdAddressFlag; }
    bool currentWrAddressFlag() const { return m_currentWrAddressFlag; }

protected:
    void run() override;

    // ---- The operation pattern, in pieces (all but runOperation expect the
    // caller to hold m_mutex).
    //
    // The plain case in one call: lock; link check (7); build() returns the
    // frame length in the send buffer, 0 meaning refused (1, nothing sent;
    // build() may log its own ParError line before returning 0); queue (0 or
    // 4); direct mode: send the next queued frame and exchange (111 without a
    // reply, 3 when the error flag is set); unlock.
    long int runOperation(const char *signature, const std::function<int()> &build);
    // True when the link is down; logs signature + " SocketDisconnected " +
    // the socket error text when debug bit 0 is set. The caller unlocks and
    // returns 7.
    bool linkDown(const char *signature);
    // Copies the first `length` bytes of the send buffer into the command
    // queue if it holds no more than the queue limit: 0, else 4. A length of 0
    // queues an empty entry, which the sender skips. Wakes the loop in thread
    // mode.
    int queueFrame(int length);
    // Wakes the socket thread for new work; only thread mode has any for it.
    // Call without m_dataMutex held.
    void wakeLoop();
    // Direct mode: takes the next non-empty queued frame into outgoing and
    // runs the exchange. False when no reply came (or nothing was queued).
    bool exchangeNext();
    // queueFrame(length), then in direct mode exchangeNext(), whose result
    // goes to *replied (false in thread mode).
    long int queueAndExchange(int length, bool *replied);
    // Direct mode: sends the frame, waits for the reply, parses it; false
    // when no reply came.
    bool exchange(const char *frame, int size);
    // Status of a finished direct exchange: 111, 3 or `queued`.
    long int exchangeStatus(bool replied, long int queued) const;
    // The frame just built, as bytes.
    QByteArray builtFrame(int length) const;
    bool debugErrors() const { return m_debugMask.load() & 1; }
    bool debugDetails() const { return m_debugMask.load() & 2; }
    ClientLock *clientMutex() { return &m_mutex; }
    std::mutex *dataMutex() const { return &m_dataMutex; }

    // Reply handlers of the link itself.
    void onRecCmdReadVars(int error, const qint32 *values, int count) override;
    void onRecCmdWriteVars(int error) override;
    void onRecCmdWatchdog(int state) override;
    void onRecUnknownCmd(int letter) override;

    // Error-reply flag: set by reply handlers, turned into status 3.
    std::atomic<int> m_errorFlag{0};
    // The client lock, held by every operation from start to end.
    ClientLock m_mutex;

    // ---- Controller operations (implemented in ops/)
public:
    // Program control (main client; the running-program query on the
    // program client).
    long int reset(long int channel);
    long int cycStart(long int channel, char *fileName);
    QByteArray getRuningPrg(int channel);

    // File transfer into DNC memory (channel clients). Several paths return
    // with m_mutex still held: see ops/FileTransfer.cpp.
    long int setTransFileType(long int type, long int channel, char *fileName, bool query);
    long int overwrite(char *txt);
    long int append(char *txt);
    long int fileEnd();
    long int uploadFile(long int type, long int channel, char *fileName, char *txt);
    bool isSetFileOk() const { return m_isSetFileOk.load(); }
    bool isMemoryFull() const { return m_memoryFull.load(); }
    // Quoted in the "isSetFileOk" log line only; the chunk size stays 400.
    int payloadTxtSize() const { return m_payloadTxtSize.load(); }
    void setPayloadTxtSize(int size) { m_payloadTxtSize.store(size); }

    // Controller error files: a status digit followed by the file or the
    // words of the failure. Owned by the client; each calling thread has its
    // own copy, valid until that thread calls again.
    char *getCncCurrentError(long int selector);

    // The time the controller gets to write an error file
    // (kErrorFileWaitMs); only the reply fuzzer shortens it.
    void setErrorFileWaitMs(int ms) { m_errorFileWaitMs.store(ms); }

    // Oscilloscope, held ready for later use (no C entry point).
    long int setOscAxis(long int a, long int b, long int c);
    long int setOscTransEn(long int enable);
    long int getOscPoint(long int selector, long int *out, int count);

    enum : int {
        kChunkSize = 400,            // text bytes per overwrite/append request
        kErrorFileWaitMs = 500,      // time the controller gets to write an error file
        kErrorFileChannelVar = 120139,
        kErrorFileKindVar = 120138
    };

protected:
    void onRecCmdReset(int state) override;
    void onRecCmdCycStart(int state) override;
    void onRecCmdGetStr(int selector, const char *text, int length) override;
    void onReciveCmdSetFileInf(int state) override;
    void onReciveCmdGetFileTransState(int state) override;
    void onReciveCmdOverWriteTxt(int state) override;
    void onReciveCmdAppendTxt(int state) override;
    void onReciveCmdFileEnd(int state) override;
    void onRecCmdOpenReadFile(int state) override;
    void onRecCmdReadFile(const quint8 *data, int size) override;
    void onRecCmdCloseReadFile(int state) override;
    void onRecCmdSetOscAxis(int state) override;
    void onRecCmdSetOscTransEn(int state) override;
    void onRecCmdGetOscPoint(int state, const qint32 *points, int count) override;

    // Reply handlers of thread mode run on the socket thread: what they
    // share with host threads is atomic or guarded by m_opsMutex.
    std::atomic<bool> m_isSetFileOk{false};
    std::atomic<bool> m_moreToSend{false};
    std::atomic<bool> m_memoryFull{false};
    std::atomic<int> m_payloadTxtSize{kChunkSize};
    // Error-file reading: the state of the last 'c' reply and the three flags.
    std::atomic<int> m_readFileState{0};
    std::atomic<int> m_errorFileWaitMs{kErrorFileWaitMs};
    bool m_fileOpened = false;
    bool m_moreToRead = false;
    bool m_somethingRead = false;
    QByteArray m_cncErrorText;          // the text being built, under m_mutex
    ThreadTexts m_errorTexts;           // what each host thread got
    mutable std::mutex m_opsMutex;     // a standard one: visible to ThreadSanitizer
    QMap<int, QByteArray> m_recTexts;   // 'g' replies by key
    QList<qint32> m_oscPoints;

private:
    // Error-file hand-over: one variable written or read under the client
    // lock already held (the public variable calls take it themselves).
    long int writeVarLocked(qint32 address, qint32 value);
    long int readVarLocked(qint32 address, qint32 *value);
    void finishErrorFile();
    // Start of overwrite and append: takes m_mutex and checks the link and
    // the announced file. 0 with the lock held, else 7 or 1 with it released.
    long int lockForText(const char *signature, const char *txt);
    // The outcome of a transfer step's direct exchange: 111 with m_mutex
    // released, 100 with it still held (the alarm blocks the client), else 0.
    long int transferExchange(bool replied);

protected:
    // ---- end of controller operations

private:
    enum Job { NoJob, ConnectJob, DisconnectJob };

    // Caller side of the socket thread: hands connect or disconnect over and
    // waits (bounded by their own waits).
    bool runJob(Job job, const QByteArray &data);
    void ensureStarted();
    // Socket thread side.
    bool performJob(Job job, const QByteArray &data);
    // Thread mode: one exchange of the loop on the socket's descriptor;
    // true for a good reply (not refused, not missing).
    bool threadExchange(qintptr fd, bool blocks, const QByteArray &frame);
    // Direct mode: the exchange on the descriptor, in the caller's thread.
    // The size of the reply (in the receive buffer), 0 without one.
    int directExchange(const char *frame, int size);
    // Both modes: sends the frame and waits for the reply that matches it
    // within the reply budget, which ends up in the receive buffer; its
    // size, or 0 without one. Sets *closed when the link went down.
    // `blocks`: the descriptor's reads block for a wait slice.
    int wireExchange(qintptr fd, bool blocks, const char *frame, int size, bool *closed);
    void markClosed();
    void updateLinkMirror();
    // Next frame of the thread loop (under m_dataMutex); empty when idle.
    QByteArray scheduleStep();
    QByteArray pollSlice();
    // The frame about to go out answers no read (under m_dataMutex).
    void forgetSentFrame();
    // Parses the reply of `size` bytes in the receive buffer (none: 0).
    int handleReply(int size);
    bool threadModeActive() const;
    // Checks the arguments of a variable call and takes the addresses into
    // m_request as 32-bit words; *ascending tells whether they rise
    // strictly. Null pointers, count outside 1..limit or an address the
    // builders refuse: logs the ParError line and returns false.
    bool takeAddresses(const char *signature, long int *addresses, int count, long int *values, int limit,
                       bool *ascending = nullptr);
    // One 'B' or 'D' frame (addresses: the count addresses of a 'B' frame):
    // direct mode exchanges it (0, 3 or 111) and a good read reply also puts
    // its values into `results` when given; thread mode leaves it for the
    // loop (0).
    // The frame is the `length` bytes built in the send buffer.
    long int sendVarFrame(int length, const qint32 *addresses = nullptr, int count = 0,
                          qint32 *results = nullptr);
    long int readVarsImpl(const char *signature, long int *addresses, int count, long int *values,
                          bool singleFrame);
    long int writeVarsImpl(const char *signature, long int *addresses, int count, long int *values,
                           bool singleFrame);
    // Checks the arguments of a bit call and takes the words holding the
    // bits into m_request, as takeAddresses does for variables. Bad ones:
    // logs the ParError line and returns false.
    bool takeBitWords(const char *signature, long int channel, int type, long int *bits, int count,
                      long int *values, bool needValues);
    // registerBits (add) and removeBits: the words holding the bits.
    long int changeBits(const char *signature, long int channel, int type, long int *bits, int count, bool add);

    // The variable calls' own arrays, reused from call to call (under
    // m_mutex): the addresses as 32-bit words and the values, in request
    // order (read in direct mode, or to be written).
    std::vector<qint32> m_request;
    std::vector<qint32> m_results;
    std::vector<qint32> m_seen;       // for the check for repeated addresses

    QTcpSocket *m_socket = nullptr;   // lives in run()
    quint8 m_sendBuf[HProtocol_Client::kBufferSize];
    quint8 m_recvBuf[HProtocol_Client::kBufferSize];
    // Poll frames are built by the socket thread while a host thread may be
    // building into the send buffer: they get a builder of their own.
    quint8 m_pollSendBuf[HProtocol_Client::kBufferSize];
    quint8 m_pollRecvBuf[HProtocol_Client::kBufferSize];
    HProtocol_Client m_pollBuilder;

    std::atomic<ErrorCallback> m_errorCallback{nullptr};
    std::atomic<int> m_exchangeState{1};
    std::atomic<bool> m_connected{false};
    std::atomic<int> m_queueLimit{1};
    std::atomic<int> m_direct{1};
    std::atomic<bool> m_stop{true};
    // Makes a reply wait give up: set by stop, connect, disconnect.
    std::atomic<bool> m_interrupt{false};
    // Bytes may wait unread on the link: the last exchange gave up, or got
    // more than its reply. The next exchange drains them before it sends.
    std::atomic<bool> m_linkDirty{true};
    std::atomic<quint8> m_debugMask{0};
    bool m_currentRdAddressFlag = false;
    bool m_currentWrAddressFlag = false;

    // Guarded by m_dataMutex.
    // Standard primitives here: they are also visible to ThreadSanitizer.
    mutable std::mutex m_dataMutex;
    std::condition_variable m_workCond;   // wakes the socket thread
    std::condition_variable m_doneCond;   // wakes the caller whose job is done
    std::condition_variable m_slotCond;   // wakes callers waiting for the job slot
    ValueTable m_values;
    QList<QByteArray> m_queue;
    QByteArray m_outgoing;                 // direct mode: the frame to send
    QList<QByteArray> m_threadOutgoing;    // thread mode: frames left by readVars
    QList<QVector<qint32>> m_threadOutgoingAddresses;
    std::vector<qint32> m_sentAddresses;   // addresses of the 'B' frame on the wire
    qint32 *m_sentResults = nullptr;       // where its values go besides the map (direct mode)
    bool m_sentIsPoll = false;             // that frame is a poll slice
    int m_schedulerKind = 0;
    int m_pollPosition = -1;
    int m_pollSlice = kPollSlice;
    bool m_quit = false;
    bool m_started = false;
    Job m_job = NoJob;
    bool m_jobBusy = false;
    bool m_jobDone = false;
    bool m_jobResult = false;
    QByteArray m_jobData;
    int m_socketState = 0;                 // QAbstractSocket::SocketState mirror
    qintptr m_descriptor = -1;             // while connected, for direct-mode exchanges
    bool m_readsBlock = false;             // its reads block for a wait slice
    QString m_socketError;
};

#endif
