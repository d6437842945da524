// CTcpApartment: the apartment of the TCP transport. It makes TCP sinks
// (each with the apartment's maximum frame size), converts between
// apartment URLs ("tcp://" + address) and transport addresses
// ("<IPv4>:<port>"), and waits for frames on up to MAX_SINKS_PER_WAIT sinks
// at once for the communication threads.
#ifndef APARTMENT_TCPAPARTMENT_H
#define APARTMENT_TCPAPARTMENT_H

#include <vector>

#include "Apartment.h"
#include "TcpApartmentSink.h"

class CTcpApartment : public CApartment {
public:
    // Size of the buffer that receives frames on real-time links: the
    // largest frame such a link carries.
    static const unsigned int RT_RAW_BUFFER_SIZE = CTcpApartmentSink::RT_MAX_FRAME_SIZE;

    CTcpApartment();
    virtual ~CTcpApartment();

    APARTMENT_TYPE apartmentType() const override { return TCP_APARTMENT; }

protected:
    IApartmentSink* createSink(APARTMENT_SINK_TYPE type) override;
    // A null or empty URL gives "0.0.0.0:0"; "tcp://" (case-sensitive) is
    // stripped; any other text is taken whole. Always true.
    bool getPortAddressFromApartmentUrl(const char* strApartmentUrl,
                                        std::string& strAddress) override;
    // A null or empty address gives "tcp://0.0.0.0:0". Always true.
    bool getApartmentUrlFromPortAddress(const char* strAddress,
                                        std::string& strApartmentUrl) override;
    // One pass: poll the sinks' descriptors (any value), then serve every
    // sink that is readable or already holds a whole frame: read what is
    // waiting and take the whole frames, at most MAX_FRAMES_PER_PASS frames
    // or MAX_BYTES_PER_PASS payload bytes per sink, so that one flooding
    // link cannot starve the others (what is left is served on the next
    // pass, without waiting on the socket). Frames on a real-time link go
    // straight to the callback on this thread; any other frame becomes a
    // CApartmentFrame message, and the messages of the pass are posted
    // together. A link is treated as closed (APARTMENT_CONNECTION_CLOSED,
    // as for a peer's orderly close) when the peer has gone, when a header
    // announces more than the link's maximum (one line names the peer and
    // the size), and when no memory can be had for a frame.
    void waitFrameOnSinks(IApartmentSink** pSinks, unsigned int uintCount, DWORD dwTimeout,
                          bool bRtConnection) override;
    // Writes a byte to the thread's wake socket, which its poll watches
    // beside the sinks.
    void interruptWait(bool bRtConnection) override;

public:
    static const unsigned int MAX_FRAMES_PER_PASS = 64;
    static const unsigned int MAX_BYTES_PER_PASS = 256 * 1024;

private:
    typedef std::vector<APARTMENT_TMSG> MessageBatch;
    void serveSink(IApartmentSink* pSink, CTcpApartmentSink* pTcp, MessageBatch& batch);
    // Takes the whole frame the sink holds: a callback for a real-time
    // link, else a message appended to `batch`.
    void deliverFrame(IApartmentSink* pSink, CTcpApartmentSink* pTcp, unsigned int uintType,
                      char* pPayload, unsigned int uintSize, MessageBatch& batch);
    // Closes the sink and appends APARTMENT_CONNECTION_CLOSED with a
    // reference to `batch`, after the frames that came before the close.
    void closeLink(IApartmentSink* pSink, MessageBatch& batch);

    char* m_pRtRawBuffer;  // used only by the real-time communication thread
    unsigned int m_uintRtRawBufferSize;
    // The same for a real-time link to itself: its two ends are read by the
    // non-real-time thread, with the other loopback sinks, at the same time
    // as the real-time thread fills m_pRtRawBuffer. Allocated on first use;
    // used only by the non-real-time communication thread.
    char* m_pLoopbackRawBuffer;
    // A socket pair per communication thread (index 1: the real-time one):
    // [0] is polled with the sinks, [1] written to wake it; -1 when none
    // could be had (a new link then waits for the pass to end).
    int m_WakeFds[2][2];
};

#endif
