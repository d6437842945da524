// The TCP sinks.
//
// CTcpApartmentSink owns one socket and turns its byte stream into frames
// and back: each frame is an 8-byte header (type, then payload size, both
// big-endian u32) followed by the payload, which it never interprets. The
// three concrete sinks differ in how their socket comes to exist:
//   CTcpListenSink   the apartment's listening socket; makes server sinks.
//   CTcpClientSink   the end an apartment connects towards another one.
//   CTcpServerSink   the accepted end; learns its peer from the first frame.
//
// Sending: any thread. Each frame leaves in one gathered write (header,
// payload parts) straight from the caller's buffers. While one thread is
// writing, frames of other threads for the same link queue up behind it and
// the writing thread takes them all in its next write (a group commit); each
// caller still returns only once its own frame has been handed to the
// kernel, or the link has failed.
//
// With a send queue (enableSendQueue), a frame is instead copied into the
// link's queue, bounded in bytes, and the writer returns at once: the
// first writer that finds the socket free writes out everything queued in
// large writes, and when the socket is full the communication thread
// takes over once it has room again. A writer that finds the queue full
// waits for room under the stall rule of a synchronous write; a frame
// larger than the whole queue waits for the queue to empty and is written
// as without one. A link that closes with frames still queued says how
// many in one line.
//
// Receiving: the single thread that owns the sink (a communication thread;
// for a fresh server sink, the listen thread that reads its connection
// frame before the link is filed). One read takes whatever is waiting into
// the reading thread's read buffer, borrowed for the call, from which
// complete frames are taken in place; only the bytes of a frame still
// incomplete when the reader is done are kept in a buffer of the link's
// own, sized to that frame (settleReadBuffer), so that an idle link holds
// no read buffer. A payload larger than the read buffer is read straight
// into a buffer of its own, which the taker may keep. A header that
// announces more than the link's maximum is refused before anything is
// allocated for it.
//
// Same host: with setSameHost(true) (before initSink), a listen sink also
// listens on its same-host names and a client sink linking to an address
// of this host tries the listener's name first (see CSameHost); the socket
// is then a Unix stream socket and everything above it stays the same.
//
// TLS: with a context set (setTlsContext, before initSink), every byte of
// the link goes through a CTlsSession, whose handshake completes before the
// connection frame: a client's in initSink, a server's in
// takeConnectionInfo, on the listen thread. Without one, nothing changes.
//
// processConnectRequest runs on the listen thread; a client's initSink on
// the thread that connects.
#ifndef APARTMENT_TCPAPARTMENTSINK_H
#define APARTMENT_TCPAPARTMENTSINK_H

#include <memory>
#include <string>
#include <vector>

#include "ApartmentFrameCodec.h"
#include "ApartmentSink.h"
#include "QueueBudget.h"
#include "FieldKit/Socket/Socket.h"
#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/Reference/Reference.h"
#include "TlsSession.h"

class CLinkPoller;

class ITcpApartmentSinkStub : public TExtensionStub<CApartmentSink, ITcpApartmentSink> {
public:
    using TExtensionStub::TExtensionStub;
};

enum RECEIVE_FRAME_STEP {
    RECEIVE_FRAME_HEAD = 1,  // frames are taken from the read buffer
    RECEIVE_FRAME_BODY = 2   // a large payload is being read into its own buffer
};

class CTcpApartmentSink : public ITcpApartmentSinkStub {
public:
    static constexpr unsigned int FRAME_HEADER_SIZE = 8;
    // The largest payload a real-time link carries: a real-time frame is
    // delivered from one fixed buffer of the apartment.
    static constexpr unsigned int RT_MAX_FRAME_SIZE = APARTMENT_RT_MAX_FRAME_SIZE;
    // The read buffer: what one read takes at most. It holds the largest
    // real-time frame whole, so that a real-time link never allocates per
    // frame; a larger payload on another link gets a buffer of its own.
    static constexpr unsigned int READ_BUFFER_SIZE = RT_MAX_FRAME_SIZE + FRAME_HEADER_SIZE;
    // A send that cannot make progress for this long condemns the link.
    static constexpr DWORD SEND_STALL_TIMEOUT_MS = 100;
    // The socket buffers of a link (the kernel doubles the figure). Large
    // enough that a stream of large frames flows without the sender and
    // the receiver waiting on each other per 64 KiB; an idle link holds no
    // memory for them.
    static constexpr int LINK_SOCKET_BUFFER_SIZE = 1 << 20;
    // Frames that one gathered write takes at most (three buffers each,
    // within the system's limit of 1024 per call).
    static constexpr unsigned int MAX_FRAMES_PER_WRITE = 256;

    // What readAvailable found.
    enum READ_RESULT {
        READ_DATA,     // bytes were taken in
        READ_NOTHING,  // nothing is waiting
        READ_CLOSED,   // the peer shut down in order: nothing more will come
        READ_FAILED,   // the link is broken
        READ_NO_MEMORY  // the read buffer could not be had
    };
    // What the read bytes hold.
    enum FRAME_STATUS {
        FRAME_READY,       // a whole frame: see nextFrame
        FRAME_INCOMPLETE,  // more bytes are needed
        FRAME_TOO_LARGE,   // the header announces more than the limit
        FRAME_NO_MEMORY    // no buffer could be had for a large payload
    };

    CTcpApartmentSink();
    virtual ~CTcpApartmentSink();

    // Also puts this link's concrete local IP in place of "0.0.0.0:", so a
    // wildcard-bound apartment advertises an address the peer can reach.
    void setLocalApartmentUrl(const char* strUrl) override;
    // Any thread. Blocks while the peer keeps taking bytes; false for a
    // listen sink, a payload above the link's maximum (nothing is written),
    // a link that is closed or condemned, a broken link or a stall of
    // SEND_STALL_TIMEOUT_MS (which also prints a line and marks the sink
    // expect-closed, as does any write that leaves part of a frame behind).
    bool sendFrame(const unsigned int& uintFrameType, const void* pData,
                   const unsigned int& uintSize) override;
    bool sendFrameParts(const unsigned int& uintFrameType, const void* pHead,
                        unsigned int uintHeadSize, const void* pTail,
                        unsigned int uintTailSize) override;
    // Owning thread only; never blocks; at most one read. See IApartmentSink.
    // A frame above the maximum is never delivered.
    bool receiveFrame(unsigned int& uintFrameType, void* pBuffer,
                      unsigned int& uintSize) override;
    int getSocketFd() const override;

    // The largest payload a non-real-time link accepts and sends (a
    // real-time link always takes RT_MAX_FRAME_SIZE). Set before the sink
    // is shared.
    void setMaxFrameSize(unsigned int uintMaxFrameSize);
    unsigned int maxFrameSize() const;
    // The apartment's TLS settings (null: plaintext). Before initSink; a
    // listen sink hands them to the server sinks it makes.
    void setTlsContext(const std::shared_ptr<CTlsContext>& context);
    bool usesTls() const { return m_tlsContext != nullptr; }
    // Whether the sink takes the same-host path where it can (see
    // CSameHost): set before initSink; off unless set.
    void setSameHost(bool bSameHost) { m_bSameHost = bSameHost; }
    // Whether the link's socket is a Unix socket: it took the same-host
    // path. Any thread that holds the sink.
    bool overLocalSocket() const;
    // Owning thread only. Whether the TLS session holds bytes the socket's
    // readiness no longer shows: the link must be read again before its
    // thread waits on the socket. False without TLS.
    bool tlsPending() const { return m_pTls && m_pTls->hasPending(); }

    // Owning thread only. One non-blocking read of what is waiting, at most
    // uintMost bytes. The bytes land in the thread's borrowed read buffer
    // unless the link holds a partial frame of its own: a reader calls
    // settleReadBuffer before it leaves the link.
    READ_RESULT readAvailable(unsigned int uintMost = 0xFFFFFFFFu);
    // Owning thread only. The last READ_DATA left nothing to read: a
    // plaintext socket gave fewer bytes than there was room for, or the TLS
    // session says it and its socket are empty. Another read before the
    // next wait would find nothing (bytes that come meanwhile show as
    // readiness again).
    bool readDrained() const { return m_bReadDrained; }
    // Owning thread only. Gives back the borrowed read buffer: bytes of an
    // incomplete frame still in it move to a buffer of the link's own, just
    // large enough for that frame, and a buffer of its own that holds
    // nothing is freed. False when no memory could be had (the link cannot
    // go on).
    bool settleReadBuffer();
    // Owning thread only. The next whole frame held, without taking it: its
    // type, size and payload (valid until the next call on this sink). A
    // header announcing more than min(maximum, uintLimit) bytes gives
    // FRAME_TOO_LARGE and `uintSize` the announced size. Never reads.
    FRAME_STATUS nextFrame(unsigned int& uintFrameType, char*& pPayload, unsigned int& uintSize,
                           unsigned int uintLimit = 0xFFFFFFFFu);
    // Owning thread only. Drops the frame nextFrame reported. With
    // bPayloadTaken, the caller keeps a payload that had a buffer of its own
    // (see payloadHasOwnBuffer) and frees it with delete[].
    void consumeFrame(bool bPayloadTaken = false);
    // Whether the frame nextFrame reported sits in a buffer of its own.
    bool payloadHasOwnBuffer() const;
    // Whether a whole frame is already held, so that a wait for the socket
    // must not come first. Owning thread only.
    bool hasFrameReady() const;

    // A condemned link is also shut down at once, so that the thread that
    // serves it sees it end (and posts its close) without looking for it.
    void setExpectSinkClosed(bool bExpect) override;

    // The account of this link's messages waiting in the apartment's
    // queues (none for a link whose frames are not queued). Set before the
    // link is served; read by the serving thread.
    void setBacklog(std::shared_ptr<CLinkBacklog> backlog) { m_pBacklog = std::move(backlog); }
    const std::shared_ptr<CLinkBacklog>& backlog() const { return m_pBacklog; }

    // Turns the send queue on, uintBytes at most (0 leaves writes
    // synchronous), and names the readiness set whose thread flushes it
    // when the socket is full (null: no thread does; the next writer
    // tries). Called by the apartment when it files a link that is not
    // real-time, before any other thread writes on it; the poller may be
    // changed (or cleared, before it goes) at any time after.
    void enableSendQueue(unsigned int uintBytes, CLinkPoller* pPoller);
    void setSendQueuePoller(CLinkPoller* pPoller);
    unsigned int sendQueueBound() const { return m_uintSendQueueBound; }
    // The communication thread, when the socket has room: writes what is
    // queued, as far as the socket takes it without waiting. Never blocks
    // on the socket; returns at once while another thread is writing.
    void flushSendQueue();
    // Bytes and frames queued and not yet wholly written. Any thread.
    size_t sendQueueBytes();
    size_t sendQueueFrames();

    // Sets the socket buffers to LINK_SOCKET_BUFFER_SIZE and, on TCP,
    // turns off Nagle's delay. False only when there is no socket.
    bool initSinkSocketOpt();

    // "ip:port" (just "ip" for port 0); an empty ip stands for 127.0.0.1.
    static void makeSinkAddress(const std::string& strIp, unsigned short uiPort,
                                std::string& strOut);
    // Splits at the first ':'; without one, the whole text is the ip and
    // the port is 0.
    static void resolveSinkAddress(const std::string& strAddress, std::string& strIp,
                                   unsigned short& uiPort);

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
    bool onSinkDestroyed() override;
    void onSinkClose() override;

    std::string m_strLocalIPAddress;
    unsigned short m_uiLocalIPPort;
    std::string m_strRemoteIPAddress;
    unsigned short m_uiRemoteIPPort;
    CSocket m_Socket;
    std::shared_ptr<CTlsContext> m_tlsContext;
    bool m_bSameHost = false;
    // The link's TLS once it is set up; null for plaintext. Made and driven
    // through its handshake by the one thread that sets the link up, then
    // shared by the reader and the writers (it locks inside). Kept until the
    // sink goes: a reader may still call it after the link was closed.
    std::unique_ptr<CTlsSession> m_pTls;
    // Prints, once per apartment (its context), which record layer the
    // first finished handshake got.
    void announceTls();

    // Receive state: owning thread only, no lock. The read buffer holds
    // bytes [m_uintReadBegin, m_uintReadEnd) not yet taken as frames.
    RECEIVE_FRAME_STEP m_intReceiveFrameStep;
    unsigned int m_uintReceiveFrameType;  // of the frame nextFrame reported
    unsigned int m_uintReceiveFrameSize;
    char* m_pReceiveBuffer;               // the read buffer: borrowed, or the link's own
    unsigned int m_uintReceiveBufferSize;  // its capacity
    bool m_bBorrowedBuffer;               // m_pReceiveBuffer is the reading thread's
    unsigned int m_uintReadBegin;
    unsigned int m_uintReadEnd;
    bool m_bReadDrained = false;
    char* m_pLargePayload;  // a payload too large for the read buffer
    unsigned int m_uintLargePayloadFill;
    unsigned int m_uintMaxFrameSize;
    std::shared_ptr<CLinkBacklog> m_pBacklog;

    // Guards the queue of frames waiting to be written and the writing
    // flag (m_bSending: a thread is writing, or the writing has been handed
    // to a waiting writer). Each waiting writer has a condition of its own
    // (see PendingFrame); m_SendDoneCondition wakes a closer once no write
    // is under way. No socket call is made under it. Closing the socket
    // waits for that, so that no writer uses a descriptor that is being
    // closed (or reused). Nothing else is locked while it is held, but
    // for the poller's leaf mutex (the send queue's arming).
    struct PendingFrame;
    OS::TBaseMutex m_SendMutex;
    OS::TCondition m_SendDoneCondition;
    PendingFrame* m_pSendHead;
    PendingFrame* m_pSendTail;
    bool m_bSending;

    // The send queue, under m_SendMutex (whose only nested lock is then
    // the poller's leaf mutex, see _endFlush). Writers append to m_SendFill;
    // the thread holding m_bSending swaps it with m_SendFlush once that is
    // written out, and writes m_SendFlush from m_uintSendFlushOffset
    // without the lock (no one else touches it meanwhile). The *Ends
    // vectors hold where each frame ends, to count the frames not sent.
    unsigned int m_uintSendQueueBound;  // 0: no queue; set before sharing
    std::vector<char> m_SendFill;
    std::vector<size_t> m_SendFillEnds;
    std::vector<char> m_SendFlush;
    std::vector<size_t> m_SendFlushEnds;
    size_t m_uintSendFlushOffset;
    // Bytes of the queue written so far: a writer waiting for room
    // watches it to tell a slow peer from a stalled one.
    unsigned long long m_ullSendProgress;
    CLinkPoller* m_pSendPoller;
    bool m_bSendArmed;        // the poller's thread is to flush when writable
    bool m_bSendQueueClosed;  // the link is closing: nothing more is queued
    bool m_bWritingAlone;     // m_bSending holds a frame too large for the queue
    timespec m_LastQueuedAt;  // when the last frame was queued (monotonic)

private:
    unsigned int effectiveMaxFrameSize() const;
    // Makes sure there is a read buffer to read into: the one holding a
    // partial frame, else the thread's, borrowed.
    bool _ensureReceiveBuffer();
    // Drops the read buffer (gives back a borrowed one); the large payload
    // and the receive step stay.
    void _releaseReadBuffer();
    // Drops everything received and not taken.
    void _clearReceiveBuffer();
    // Marks the frames from pFirst up to (not including) pEnd done and wakes
    // their writers. m_SendMutex held.
    static void finishFrames(PendingFrame* pFirst, PendingFrame* pEnd);
    // Writes the frames from pFirst up to (not including) pEnd in as few
    // gathered writes as it takes; marks each frame's result. False when the
    // link failed (frames not wholly written are failed).
    bool _writeFrames(int fd, PendingFrame* pFirst, PendingFrame* pEnd);

    enum FLUSH_RESULT {
        FLUSH_EMPTY,    // everything queued is written
        FLUSH_BLOCKED,  // the socket is full (or this writer did its share)
        FLUSH_FAILED    // the link failed or stalled: it is condemned
    };
    // Send-queue mode of sendFrameParts.
    bool _queueFrame(PendingFrame& frame, unsigned int uintSize);
    // m_SendMutex held, the queue empty and the socket free; releases the
    // mutex. Writes the frame as far as the socket takes it now and queues
    // the rest for the communication thread.
    bool _writeDirect(PendingFrame& frame, size_t total);
    // m_SendMutex held (released while writing) and m_bSending taken by
    // the caller. With bWait, waits for the socket under the stall rule;
    // without, stops at a full socket and after a few swaps of the queue,
    // so that a writer that flushes is not kept writing for the others.
    // With pGiveUpAt (a closing link), it stops there, printing nothing;
    // without, it stops (FLUSH_BLOCKED) once the link is closing.
    FLUSH_RESULT _flushQueue(bool bWait, const timespec* pGiveUpAt = nullptr);
    // m_SendMutex held: gives m_bSending back and arms the poller's
    // thread (or disarms it) according to how the flush ended.
    void _endFlush(FLUSH_RESULT result);
    size_t _queuedBytes() const;
    size_t _queuedFrames() const;
    // On close: writes what the socket takes within the stall rule, says
    // how many frames were left and drops them.
    void _closeSendQueue();
};

class IApartmentListenSinkStub : public TExtensionStub<CTcpApartmentSink, IApartmentListenSink> {
public:
    using TExtensionStub::TExtensionStub;
};

class IApartmentServerSinkStub : public TExtensionStub<CTcpApartmentSink, IApartmentServerSink> {
public:
    using TExtensionStub::TExtensionStub;
};

class CTcpServerSink;

// The apartment's listening socket. With local port 0 it draws exactly one
// random port in RANDOM_PORT_MIN..RANDOM_PORT_MAX and fails if that one is
// taken. With the same-host path on it also takes the port's same-host
// names (one listener each, see sameHostListeners) and fails, with one
// line, if one of them is taken; the names go before the port.
class CTcpListenSink : public IApartmentListenSinkStub {
public:
    static constexpr unsigned short RANDOM_PORT_MIN = 10000;
    static constexpr unsigned short RANDOM_PORT_MAX = 50000;
    // Deep enough for a storm of connections (the system caps it at
    // net.core.somaxconn): the listen thread takes them in as fast as they
    // come, but a short queue would refuse them while it does.
    static constexpr int LISTEN_BACKLOG = 4096;

    APARTMENT_SINK_TYPE sinkType() const override;
    // Listen thread only. May throw (an allocation failure); the accepted
    // connection is then closed.
    IApartmentServerSink* processConnectRequest(DWORD dwTimeoutMs) override;

    // A uniform draw from RANDOM_PORT_MIN..RANDOM_PORT_MAX, freshly seeded
    // from the system's random device. Virtual so that a test can make the
    // draw land on a port it holds.
    virtual unsigned short randomPort();

    // The apartment's URL, for the server sinks of this listener and of its
    // same-host listeners.
    void setLocalApartmentUrl(const char* strUrl) override;
    // The listeners of the same-host names, made by initSink; the listen
    // thread waits on them beside this one. Empty with the path off.
    const std::vector<CReference<CTcpListenSink>>& sameHostListeners() const {
        return m_SameHostListeners;
    }

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
    bool onSinkDestroyed() override;
    void onSinkClose() override;
    // Makes an accepted connection (already in server's socket) this
    // listener's: its addresses, the apartment's URL, maximum frame size
    // and TLS. The server sink with the caller's reference, or null.
    IApartmentServerSink* adoptConnection(CTcpServerSink* server, const std::string& strLocal,
                                          const std::string& strRemote);

private:
    // Takes the same-host names of the port just bound; false (after one
    // line) when one is taken.
    bool listenSameHost();
    void dropSameHostListeners();
    std::vector<CReference<CTcpListenSink>> m_SameHostListeners;
};

// The listener of one same-host name, owned by the apartment's listen sink:
// initSink("ip:port", null) takes the name of that address; its server
// sinks are Unix sockets with the addresses a TCP link to ip:port would
// have. Listen thread only, as its owner.
class CSameHostListenSink : public CTcpListenSink {
public:
    IApartmentServerSink* processConnectRequest(DWORD dwTimeoutMs) override;

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;

private:
    std::string m_strPeerAddress;  // what a TCP peer of this host would come from
};

// The connecting end. initSink(local, remote) connects within
// CONNECT_TIMEOUT_MS; it sends nothing (the apartment sends the connection
// frame).
// With TLS, initSink also completes the client's handshake within
// CONNECT_TIMEOUT_MS (a failure prints one line); the server may still
// refuse this side's certificate afterwards, which shows as a closed link.
class CTcpClientSink : public CTcpApartmentSink {
public:
    static constexpr DWORD CONNECT_TIMEOUT_MS = 1000;

    APARTMENT_SINK_TYPE sinkType() const override;

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;

private:
    // The client's side of the TLS handshake, waiting on the socket; false
    // (with one line) when it failed or ran out of CONNECT_TIMEOUT_MS.
    bool handshake();
    // Connects to the remote's same-host name, never waiting; false (and
    // nothing changed) when the remote is no address of this host or
    // nobody holds the name.
    bool connectSameHost();
};

// The accepted end, created by CTcpListenSink::processConnectRequest.
class CTcpServerSink : public IApartmentServerSinkStub {
public:
    // What one step of reading the connection frame found.
    enum CONNECTION_INFO {
        INFO_RECEIVED,  // the peer is known: see waitRemoteConnectionInfo
        INFO_PENDING,   // more bytes are needed
        INFO_REFUSED    // the link broke, or its first frames can never be one
    };

    // The whole handshake wait never lasts longer than this (plus one
    // readability wait): it runs on the host's dispatching thread, and a
    // peer feeding a huge first frame byte by byte would otherwise hold
    // that thread for as long as it likes.
    static constexpr DWORD CONNECTION_INFO_TOTAL_TIMEOUT_MS = 1000;
    // The same with TLS, whose handshake comes first: the listen thread
    // does the server's side of every handshake, which in a storm of
    // connections on a loaded machine takes it well past a second.
    static constexpr DWORD CONNECTION_INFO_TLS_TOTAL_TIMEOUT_MS = 2000;
    DWORD totalTimeoutMs() const {
        return usesTls() ? CONNECTION_INFO_TLS_TOTAL_TIMEOUT_MS : CONNECTION_INFO_TOTAL_TIMEOUT_MS;
    }

    APARTMENT_SINK_TYPE sinkType() const override;
    // Owning thread, before the link is filed. One step that never waits:
    // with TLS, first a step of the handshake (INFO_REFUSED when it failed:
    // see tlsFailure); then reads no more than the connection frame can
    // still need, so that the frames that follow it stay in the socket (or
    // the TLS session: see tlsPending) for the communication thread.
    // bProgress tells whether anything was taken. Once received, every
    // later call answers INFO_RECEIVED with the same flag.
    CONNECTION_INFO takeConnectionInfo(bool& bRtConnection, bool& bProgress);
    // Before the sink is shared. Frames of other types
    // are dropped while it waits; a frame too large ever to be the
    // connection block is refused at its header. Each wait for data lasts
    // up to dwTimeoutMs; a peer that sends nothing more is given up after
    // dwTimeoutMs without progress, and any peer after
    // CONNECTION_INFO_TOTAL_TIMEOUT_MS in all. Bytes that follow the
    // connection frame stay held for the communication thread. False drops
    // the connection.
    bool waitRemoteConnectionInfo(DWORD dwTimeoutMs, bool& bRtConnection) override;

    // The socket the listen sink accepts into; not yet attached before that.
    CSocket& innerSocket();
    // Owning thread. Whether the TLS handshake is still under way, whether
    // its next step waits for room to write rather than for bytes, and why
    // it failed (empty unless it did).
    bool tlsHandshaking() const { return usesTls() && !m_bTlsDone; }
    bool tlsWantsWrite() const { return m_bTlsWantsWrite; }
    std::string tlsFailure() const;

private:
    // The largest frame the connection frame may still come after: frames
    // of other types are dropped, each making it its own size.
    unsigned int m_uintInfoCapacity = APARTMENT_CONNECTION_BLOCK_SIZE;
    bool m_bConnectionInfoKnown = false;
    bool m_bInfoRt = false;  // the real-time flag the connection frame carried
    bool m_bTlsDone = false;
    bool m_bTlsWantsWrite = false;

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
};

#endif
