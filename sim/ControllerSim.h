#ifndef CONTROLLERSIM_H
#define CONTROLLERSIM_H

// A simulated controller: listens on ADDRESS:60000 and answers the command
// set the way a controller does, on threads of its own (one per connection),
// so a caller that blocks in a direct-mode exchange is still served. It needs
// no event loop and no QCoreApplication: a plain C host can embed it.
//
// Frames (TCP): 00 00 00 00, length (2 bytes LE, = total - 6), unit 00, then
// the PDU: letter, sub/count, payload. Every multi-byte field is little-endian.
// Requests are framed by the length field (split or coalesced segments are
// fine). Reply PDUs, byte 0 first (the reply gets the same 7-byte header):
//
//   'p'                      -> 70 00                       watchdog state 0
//   'B' n a1..an             -> 42 n v1..vn                 unset addresses read 0
//   'D' n (a v)*n            -> 44 n
//   'f' 03 ch 00             -> 66 03 ch st   0 stopped; 1 ch not 1..99
//   'f' 04 ch name 00        -> 66 04 ch st   0 started; 1 ch not 1..99 or empty
//                                name; 2 a program already runs on ch; 3 the
//                                name is neither a DNC file of ch nor a known
//                                program (addKnownProgram)
//   'f' 05 p ... 00          -> 66 05 p 00
//   'g' sel name 00          -> 67 sel text 00   sel 05 (running-program query):
//                                the program running on the channel given by
//                                name as decimal text (1..99; anything else is
//                                channel 1), empty text when idle. Other
//                                selectors: empty text.
//   'd' 01|06 ch ty name 00  -> 64 sub ch ty st   0 ok; 1 ch not 1..99, type
//                                byte not 1/3/4/5 or empty name; 2 the file is
//                                the program running on ch (denied). Sub 01
//                                with state 0 makes (ch, name) the target of
//                                this connection's text requests and creates
//                                the file if absent; 06 only asks.
//   'd' 03 text 00 (overwrite), 'd' 02 text 00 (append)
//                            -> 64 sub st   0 written; 1 no target on this
//                                connection; 2 written and DNC memory is now
//                                exactly full, or written while the controller
//                                is busy (setBusyReplies); 3 refused: it would
//                                overflow DNC memory, nothing written.
//   'd' 04 00                -> 64 04 st   0 file ended (it stays the target,
//                                later text appends to it); 1 no target
//   'd' 05 00                -> 64 05 st   1 while busy polls are pending, else 0
//   'c' 01 path 00           -> 63 01 st   1 opened; 0 no such file. Error files
//                                exist once written (below), paths
//                                "sys000N/error/curError.error" / hisError.
//   'c' 02 00                -> 63 02 n <n bytes>   a piece of 1..100 bytes, so
//                                the whole reply is n + 10 bytes. End of file
//                                (or no file open): 63 02 00 00, a count that
//                                does not match the length, i.e. no piece.
//   'c' 03 00                -> 63 03 st   1 closed; 0 no file open
//   'i' 01 a b c             -> 69 01 01
//   'i' 02 e                 -> 69 02 01
//   'i' 03 start count       -> 69 03 01 n v1..vn   the points [start,
//                                start+count) of setOscPoints that exist
//
// Error files: writing 1 (current) or 2 (history) to variable 120138 makes the
// controller write the file of channel index = variable 120139 (0..8) from
// setErrorFile and set 120138 back to 0 (unless setErrorFileStuck(true)).
//
// Bad requests: an unknown letter, a payload shorter or longer than its count
// says, or an invalid variable address get an error reply: letter | 0x80 and
// the sub byte (C2 00 for 'B'). A broken header (non-zero bytes 0-3 or unit,
// length < 2 or > 1024) closes the connection.
//
// Faults are chosen per letter and sub (sub -1 = any sub; for 'B'/'D' the sub
// is the count, for 'p' there is none: use -1). An exact sub wins over -1.
// Every request is recorded, whatever its fault. A delayed or split reply
// holds back the later requests of its connection until it is sent.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>
#include <functional>
#include <memory>

class ControllerSimPrivate;

class ControllerSim
{
public:
    struct Fault {
        enum Kind {
            None,
            Silence,     // no reply at all; the request is not carried out
            ErrorReply,  // letter | 0x80, sub; the request is not carried out
            State,       // carried out, its state byte replaced by arg (no
                         // effect on replies without one: 'B', 'D', 'g', 'c' 02)
            Delay,       // the normal reply, arg ms late
            Split,       // the reply in two TCP segments, arg ms apart (0: 50)
            CloseAfter,  // arg matching requests answered, the next one closes
                         // the connection unanswered (the count then restarts)
            Garbage,     // arg bytes (0: 16) that are no frame at all; the
                         // request is not carried out
            Oversize,    // the normal reply grown to a frame of arg bytes
                         // (0: 600), more than any reply can be
            Stream,      // the normal reply, then bytes without end until the
                         // peer closes the connection or the simulator stops
            Stale,       // first a complete reply with letter arg (0: 'D'),
                         // as left over from an earlier request, then the
                         // normal reply
            Bare,        // carried out, but the reply is the letter alone
            Count,       // 'B' only: the reply carries arg values (the real
                         // ones, then zeros) and says so in its count byte
            Restart      // the controller restarts: every connection closes
                         // unanswered and new ones are refused for arg ms
                         // (0: 1000); memory is kept
        };
        Kind kind = None;
        int arg = 0;
        int times = -1;  // -1 always; n > 0: the next n matching requests only

        static Fault silence(int times = -1) { return {Silence, 0, times}; }
        static Fault errorReply(int times = -1) { return {ErrorReply, 0, times}; }
        static Fault state(int st, int times = -1) { return {State, st, times}; }
        static Fault delay(int ms, int times = -1) { return {Delay, ms, times}; }
        static Fault split(int pauseMs = 50, int times = -1) { return {Split, pauseMs, times}; }
        static Fault closeAfter(int n, int times = -1) { return {CloseAfter, n, times}; }
        static Fault garbage(int bytes = 0, int times = -1) { return {Garbage, bytes, times}; }
        static Fault oversize(int bytes = 0, int times = -1) { return {Oversize, bytes, times}; }
        static Fault stream(int times = -1) { return {Stream, 0, times}; }
        static Fault stale(char letter = 'D', int times = -1) { return {Stale, quint8(letter), times}; }
        static Fault bare(int times = -1) { return {Bare, 0, times}; }
        static Fault count(int n, int times = -1) { return {Count, n, times}; }
        static Fault restart(int ms = 0, int times = -1) { return {Restart, ms, times}; }
    };

    // The running DNC file store size when nothing else is set.
    static constexpr int defaultDncMemorySize = 16 * 1024 * 1024;
    // Largest piece of an error file per 'c' 02 reply (the count is a signed byte).
    static constexpr int errorPieceSize = 100;

    explicit ControllerSim(const QString &address = QStringLiteral("127.0.0.1"),
                           quint16 port = 60000);
    ~ControllerSim();
    ControllerSim(const ControllerSim &) = delete;
    ControllerSim &operator=(const ControllerSim &) = delete;

    // Listens and serves on its own thread; false when the address cannot be
    // bound, with the reason in error.
    bool start(QString *error = nullptr);
    void stop();
    bool isRunning() const;
    QString address() const;
    quint16 port() const;
    int connectionCount() const;      // connections open now
    int connectionsAccepted() const;  // since start()

    // Variable memory.
    void setVariable(qint32 address, qint32 value);
    qint32 variable(qint32 address) const;
    void setAnimated(bool on);  // never-written variables then vary with time
    bool isAnimated() const;

    // Programs and run states (channels 1..99).
    void addKnownProgram(const QByteArray &name);
    QByteArray runningProgram(int channel) const;  // empty when idle
    void setRunningProgram(int channel, const QByteArray &name);
    // A started program ends by itself after ms; 0 (the default): it runs
    // until reset.
    void setProgramDuration(int ms);

    // DNC file store.
    void setDncMemorySize(int bytes);
    int dncMemorySize() const;
    int dncMemoryUsed() const;
    bool hasDncFile(int channel, const QByteArray &name) const;
    QByteArray dncFile(int channel, const QByteArray &name) const;
    void setDncFile(int channel, const QByteArray &name, const QByteArray &content);
    void clearDncFiles();
    // The next n text requests are written but answered 2 (busy); after each,
    // pollsPerBusy send-next requests answer 1 before one answers 0.
    void setBusyReplies(int n, int pollsPerBusy = 1);

    // Error files, channel index 0..8.
    void setErrorFile(int channelIndex, bool history, const QByteArray &text);
    void setErrorFileStuck(bool stuck);

    // Oscilloscope.
    void setOscPoints(const QVector<qint32> &points);
    QVector<qint32> oscAxes() const;  // the last 'i' 01 values, empty before
    qint32 oscTransEnable() const;    // the last 'i' 02 value, 0 before

    // Faults. setFault replaces what a command had; addFault queues behind
    // it, so "refuse the next 3, then stay silent once" is two calls. A fault
    // without a count never gives way to the next.
    void setFault(char letter, int sub, const Fault &fault);
    void addFault(char letter, int sub, const Fault &fault);
    void clearFault(char letter, int sub);
    void clearFaults();
    void setSilence(char letter, int sub = -1) { setFault(letter, sub, Fault::silence()); }
    void setErrorReply(char letter, int sub = -1) { setFault(letter, sub, Fault::errorReply()); }
    void setReplyState(char letter, int sub, int state) { setFault(letter, sub, Fault::state(state)); }
    void setDelay(char letter, int sub, int ms) { setFault(letter, sub, Fault::delay(ms)); }
    void setSplit(char letter, int sub = -1, int pauseMs = 50) { setFault(letter, sub, Fault::split(pauseMs)); }
    void setCloseAfter(char letter, int sub, int n) { setFault(letter, sub, Fault::closeAfter(n)); }
    // "LETTER[:SUB]=KIND[:ARG[:TIMES]]", KIND one of silence, error, state,
    // delay, split, close, garbage, oversize, stream, stale, bare, count,
    // restart (the enum order above); e.g. "B=delay:300", "d:3=state:3",
    // "p=silence:0:2", "f:3=stale:0x44".
    static bool parseFault(const QString &text, char *letter, int *sub, Fault *fault);

    // Record of every request frame received (whole frame, header included).
    QList<QByteArray> requests() const;
    QList<QByteArray> requests(char letter) const;
    void clearRequests();
    bool waitForRequests(int n, int timeoutMs) const;
    void setRecording(bool on);  // off for long benchmark runs
    // Writes every connection opened from now on, both directions, to a pcap
    // file (see SimPcap); false, with the reason, when it cannot be created.
    bool recordTraffic(const QString &path, QString *error = nullptr);
    // Called on the serving thread with every request frame, under the lock.
    void setRequestLogger(std::function<void(const QByteArray &)> logger);

private:
    std::unique_ptr<ControllerSimPrivate> d;
};

#endif
