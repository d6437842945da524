// CTcpApartment: the apartment of the TCP transport. It makes TCP sinks,
// converts between apartment URLs ("tcp://" + address) and transport
// addresses ("<IPv4>:<port>"), and waits for frames on up to 64 sinks at
// once for the communication threads.
#ifndef APARTMENT_TCPAPARTMENT_H
#define APARTMENT_TCPAPARTMENT_H

#include "Apartment.h"

class CTcpApartment : public CApartment {
public:
    // Size of the buffer that receives frames on real-time links.
    static const unsigned int RT_RAW_BUFFER_SIZE = 102400;

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
    // One pass: select on the sinks' descriptors, then at most one frame per
    // readable sink. A closed peer becomes APARTMENT_CONNECTION_CLOSED; a
    // frame on a real-time link goes straight to the callback on this
    // thread; any other frame is posted as a CApartmentFrame message.
    // A link that can never yield another frame is treated as closed too:
    // one whose peer has gone while a frame is still incomplete (the bytes
    // left behind keep the zero-byte peek from seeing the close), and a
    // real-time link holding a frame larger than RT_RAW_BUFFER_SIZE (it
    // would block the link for good). Either would otherwise keep the socket
    // readable and the thread spinning.
    void waitFrameOnSinks(IApartmentSink** pSinks, unsigned int uintCount,
                          DWORD dwTimeout) override;

private:
    enum RECEIVE_RESULT { FRAME_TAKEN, FRAME_PENDING, FRAME_REFUSED };
    RECEIVE_RESULT receiveOneFrame(IApartmentSink* pSink);
    // Closes the sink and posts APARTMENT_CONNECTION_CLOSED with a reference.
    void postConnectionClosed(IApartmentSink* pSink);

    char* m_pRtRawBuffer;  // used only by the real-time communication thread
    unsigned int m_uintRtRawBufferSize;
    // The same for a real-time link to itself: its two ends are read by the
    // non-real-time thread, with the other loopback sinks, at the same time
    // as the real-time thread fills m_pRtRawBuffer. Allocated on first use;
    // used only by the non-real-time communication thread.
    char* m_pLoopbackRawBuffer;
};

#endif
