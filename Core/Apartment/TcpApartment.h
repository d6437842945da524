// CTcpApartment: the apartment of the TCP transport. It makes TCP sinks
// (each with the apartment's maximum frame size), converts between
// apartment URLs ("tcp://" + address) and transport addresses
// ("<IPv4>:<port>"), and serves the links for the apartment's threads:
//   - each communication thread waits on one readiness set that holds all
//     of its links (CLinkPoller), kept across passes: a link is added when
//     it is filed and removed when it goes, and a pass costs what its ready
//     links cost;
//   - the listen thread accepts connections and reads each one's
//     connection frame itself, with the handshake's bounds, so that a slow
//     or silent peer never holds the dispatching thread or another link;
//     only a connection whose peer is known is handed on to be filed;
//   - with TLS (the apartment's context, handed to every sink it makes),
//     the server's side of each handshake is also done there, before the
//     connection frame, and a refused peer is named in one line;
//   - with the same-host path (see CSameHost), the listen thread waits on
//     the listeners of the port's same-host names beside the port's, and
//     treats their connections as the port's in every way.
#ifndef APARTMENT_TCPAPARTMENT_H
#define APARTMENT_TCPAPARTMENT_H

#include <atomic>
#include <map>
#include <vector>

#include "Apartment.h"
#include "LinkPoller.h"
#include "TcpApartmentSink.h"

class CTcpApartment : public CApartment {
public:
    // Size of the buffer that receives frames on real-time links: the
    // largest frame such a link carries.
    static const unsigned int RT_RAW_BUFFER_SIZE = CTcpApartmentSink::RT_MAX_FRAME_SIZE;
    // The per-pass bound of one link, so that one flooding link cannot
    // starve the others: what is left is served on the next pass, without
    // waiting on the socket.
    static const unsigned int MAX_FRAMES_PER_PASS = 64;
    static const unsigned int MAX_BYTES_PER_PASS = 256 * 1024;
    // The bounds of reading a new connection's connection frame: a peer
    // that has not sent it whole within CTcpServerSink::CONNECTION_INFO_
    // TOTAL_TIMEOUT_MS, or pauses for CONNECTION_INFO_TIMEOUT_MS once it has
    // begun, is dropped without notice.
    static const DWORD CONNECTION_INFO_TIMEOUT_MS = 100;

    // How long the communication thread leaves the ordinary links to a
    // pumping thread that has just left its wait for the queue with
    // something to dispatch, before it serves them itself: the longest a
    // link goes unread while the pump is busy in a callback. (After a wait
    // that ran out it takes them back at the end of its own pass.)
    static const long HAND_BACK_GRACE_US = 1000;

    CTcpApartment();
    virtual ~CTcpApartment();
    // Messages posted from the ordinary links by a pumping thread that read
    // them itself while it waited for the queue. Any thread.
    unsigned long long messagesReadByPump() const {
        return m_uintPumpMessages.load(std::memory_order_relaxed);
    }

    APARTMENT_TYPE apartmentType() const override { return TCP_APARTMENT; }
    // Also drops the connections whose connection frame is still awaited.
    void destroyApartment() override;

protected:
    IApartmentSink* createSink(APARTMENT_SINK_TYPE type) override;
    // A null or empty URL gives "0.0.0.0:0"; "tcp://" (case-sensitive) is
    // stripped; any other text is taken whole. Always true.
    bool getPortAddressFromApartmentUrl(const char* strApartmentUrl,
                                        std::string& strAddress) override;
    // A null or empty address gives "tcp://0.0.0.0:0". Always true.
    bool getApartmentUrlFromPortAddress(const char* strAddress,
                                        std::string& strApartmentUrl) override;
    bool watchLink(IApartmentSink* pSink, bool bRtThread) override;
    void unwatchLink(IApartmentSink* pSink) override;
    // One pass of a communication thread: waits up to dwTimeout ms for its
    // links (not at all while frames already read wait to be taken), then
    // serves every ready link up to the per-pass bound. Frames on a
    // real-time link go straight to the callback on this thread; any other
    // frame becomes a CApartmentFrame message, and the messages of the pass
    // are posted together. A link is treated as closed
    // (APARTMENT_CONNECTION_CLOSED, as for a peer's orderly close) when the
    // peer has gone, when a write condemned it, when a header announces more
    // than the link's maximum (one line names the peer and the size), and
    // when no memory can be had for a frame.
    void serveLinks(DWORD dwTimeout, bool bRtConnection) override;
    void interruptWait(bool bRtConnection) override;
    CMessageQueue::Waiter* queueWaiter() override { return &m_Lead; }
    // One pass of the listen thread: waits up to dwTimeout ms for new
    // connections and for the connection frames awaited, and hands over
    // the server sinks whose peer is now known. A connection beyond the
    // apartment's maximum of links is closed at once with one line.
    void acceptLinks(DWORD dwTimeout, std::vector<IApartmentServerSink*>& ready) override;

private:
    typedef std::vector<APARTMENT_TMSG> MessageBatch;
    // What a communication thread keeps across passes; its own alone.
    struct CommThread {
        CLinkPoller poller;
        std::vector<CLinkPoller::Link> ready;  // the links of the pass
        size_t posted = 0;                     // messages the last pass posted
        std::vector<uint64_t> carried;         // links with whole frames left over
        std::map<uint64_t, int> held;          // links held back, and why (CLinkBacklog)
    };
    // A connection whose connection frame is awaited.
    struct Handshake {
        CReference<IApartmentServerSink> server;
        CTcpServerSink* sink;
        timespec progressDeadline;
        timespec totalDeadline;
        bool watchingWrite = false;  // the TLS handshake waits for room to write
    };

    // Who serves the ordinary links (m_Comm[0]) at a time: the non-real-
    // time communication thread, or a thread that pumps the apartment and
    // would otherwise sleep on the empty queue (leader and followers). The
    // pump leads whenever it waits, so that the frame it waits for is read,
    // posted and dispatched on its own thread with one wake-up; the
    // communication thread serves them whenever no pump waits, so that
    // no link goes unread while the pump runs a callback (after at most
    // HAND_BACK_GRACE_US). Both ends post into the one queue, so per-link
    // order and everything already queued come first whoever reads.
    class Leadership : public CMessageQueue::Waiter {
    public:
        explicit Leadership(CTcpApartment& owner);
        // The communication thread's side: waits (up to dwTimeout ms) until
        // no pump leads; false when the time ran out first. A true is
        // followed by one pass and releaseByCommThread.
        bool takeForCommThread(DWORD dwTimeout);
        // bStream: the pass brought more than one message, or left whole
        // frames for the next (a stream, which that thread keeps reading).
        void releaseByCommThread(bool bStream);
        // The pump's side (from CMessageQueue::pop, without its lock): one
        // pass over the links as their leader, waiting until the deadline,
        // a wake-up or frames. False when another pumping thread leads.
        bool waitElsewhere(timespec deadline) override;
        void wake() override;

    private:
        // Under m_Mutex: hands the links back, waking the communication
        // thread when it is parked and a callback may follow (not after a
        // wait that ran out), or when it must take a link at once.
        void leave(bool bHandBack, bool bRanOut);
        static timespec afterGrace(timespec at);

        CTcpApartment& m_Owner;
        // A leaf but for the poller's wake-up: guards the fields below but
        // m_ulPumpThread, which wake() reads under the queue's lock.
        OS::TBaseMutex m_Mutex;
        OS::TCondition m_Condition;  // leadership changes hands
        bool m_bPumpLeads = false;     // a pump holds the links or waits for them
        bool m_bCommServing = false;   // the communication thread is in a pass
        bool m_bCommStreams = false;   // its last pass was part of a stream
        bool m_bCommParked = false;    // ... or waits to be called when the pump leaves
        bool m_bHandBack = false;      // a link the pump may not serve is carried
        timespec m_PumpLedAt{0, 0};
        timespec m_PumpLeftAt{0, 0};
        std::atomic<unsigned long> m_ulPumpThread;
    };

    // One pass over a set of links, as serveLinks describes, by its
    // communication thread or by a leading pump (`bPump`). True when the
    // pump should hand the links back at once: it left the real-time links
    // of its set (the loopback pair) carried for the communication thread,
    // or a link has frames beyond the per-pass bound.
    bool runPass(CommThread& thread, int timeoutMs, bool bPump);

    // Serves one ready link of a communication thread; true when whole
    // frames are left for the next pass. A link over its queue bound is
    // held back instead (not read, its readiness not reported) unless it
    // has ended (`events`).
    bool serveLink(CommThread& thread, const CLinkPoller::Link& link, MessageBatch& batch);
    // Holds the link back when its backlog says so (pausing its readiness);
    // true when it did.
    bool holdLink(CommThread& thread, uint64_t key, const CLinkBacklog& backlog);
    // Takes up the held links that may be read again (all of them when the
    // dispatcher asked for it), appending them to the pass.
    void resumeHeldLinks(CommThread& thread);
    void serveSink(CommThread& thread, IApartmentSink* pSink, CTcpApartmentSink* pTcp,
                   MessageBatch& batch);
    // Takes the whole frame the sink holds: a callback for a real-time
    // link, else a message appended to `batch`.
    void deliverFrame(IApartmentSink* pSink, CTcpApartmentSink* pTcp, unsigned int uintType,
                      char* pPayload, unsigned int uintSize, MessageBatch& batch);
    // Forgets the link, closes it and appends APARTMENT_CONNECTION_CLOSED
    // with a reference to `batch`, after the frames that came before it.
    void closeLink(CommThread& thread, IApartmentSink* pSink, MessageBatch& batch);

    // The listen thread's side. Takes what connections wait on one
    // listener: the TCP port's, or that of a same-host name.
    void acceptConnections(IApartmentListenSink* pListener);
    void stepHandshake(IApartmentSink* pSink, std::vector<IApartmentServerSink*>& ready);
    void dropHandshake(std::map<IApartmentSink*, Handshake>::iterator it);
    // Lowers m_EarliestDeadline to `deadline` when it is earlier.
    void noteDeadline(const timespec& deadline);
    // The one line a refused TLS peer gets.
    void reportTlsRefusal(IApartmentSink* pSink, const std::string& reason);

    char* m_pRtRawBuffer;  // used only by the real-time communication thread
    unsigned int m_uintRtRawBufferSize;
    // The same for a real-time link to itself: its two ends are read by the
    // non-real-time thread, with the other loopback sinks, at the same time
    // as the real-time thread fills m_pRtRawBuffer. Allocated on first use;
    // used only by the non-real-time communication thread.
    char* m_pLoopbackRawBuffer;
    CommThread m_Comm[2];  // [1]: the real-time thread's
    Leadership m_Lead;
    std::atomic<unsigned long long> m_uintPumpMessages;

    // The listen thread's alone: its readiness set (the listening socket
    // and the connections being set up) and those connections.
    CLinkPoller m_ListenPoller;
    bool m_bListenWatched;
    std::map<IApartmentSink*, Handshake> m_Handshakes;
    // No deadline of m_Handshakes is earlier (it may be earlier than all of
    // them: a deadline pushed back is noticed at the next look); noLimit
    // when there are none.
    timespec m_EarliestDeadline;
};

#endif
