// Sinks: the two ends of one link between two apartments, as the apartment
// core sees them.
//
// The core holds sinks only as interface references (CReference<IApartment
// Sink> and kin); a sink is counted once whichever interface it is reached
// through. Frames go out with sendFrame from any thread; receiveFrame and
// closing belong to the one communication thread that owns the sink.
#ifndef APARTMENT_IAPARTMENTSINK_H
#define APARTMENT_IAPARTMENTSINK_H

#include "GroundKit/Base/BaseType.h"
#include "GroundKit/Base/IBase.h"
#include "GroundKit/Base/Stub.h"

enum APARTMENT_SINK_TYPE {
    INVALID_SINK_TYPE = 0,
    LISTEN_SINK = 1,
    CLIENT_SINK = 2,
    SERVER_SINK = 3
};

// Which end of the apartment's link to itself a sink is.
enum APARTMENT_LOOPBACK_TYPE {
    NONE_LOOPBACK_TYPE = 0,
    CLIENT_LOOPBACK_TYPE = 1,
    SERVER_LOOPBACK_TYPE = 2
};

// Frame types of the non-real-time link. Frames on the real-time link carry
// a type number of the sender's choosing.
enum APARTMENT_FRAME_TYPE {
    APARTMENT_CONNECTION_FRAME = 0,
    APARTMENT_REQUEST_FRAME = 1,
    APARTMENT_RESPONSE_FRAME = 2,
    APARTMENT_ALIVE_FRAME = 3,
    APARTMENT_ALIVE_ACK_FRAME = 4
};

// The largest payload a non-real-time link accepts and sends unless the
// environment says otherwise (APARTMENT_MAX_FRAME_BYTES, read when an
// apartment is initialised), and the fixed one of a real-time link.
static const unsigned int APARTMENT_DEFAULT_MAX_FRAME_SIZE = 64u << 20;
static const unsigned int APARTMENT_RT_MAX_FRAME_SIZE = 102400;

class IApartmentSink : public IBase {
public:
    static const char* interfaceName() { return "IApartmentSink"; }

    // Opens the transport between the two address texts ("ip:port"; null
    // counts as empty). False leaves the sink destroyed.
    virtual bool initSink(const char* localAddress, const char* remoteAddress) = 0;
    virtual APARTMENT_SINK_TYPE sinkType() const = 0;
    // Releases the transport and forgets the identity. False when the
    // transport refused; then nothing changed.
    virtual bool destroySink() = 0;
    // Closes the transport but keeps URLs and addresses for comparison.
    virtual void closeSink() = 0;
    virtual bool isSinkClosed() const = 0;
    virtual bool isExpectSinkClosed() const = 0;
    virtual void setExpectSinkClosed(bool bExpect) = 0;
    virtual void setRTConnection(bool bRt) = 0;
    virtual bool getRTConnection() const = 0;
    virtual void setLoopbackType(APARTMENT_LOOPBACK_TYPE type) = 0;
    virtual APARTMENT_LOOPBACK_TYPE getLoopbackType() const = 0;
    // Null is stored as the empty text.
    virtual void setLocalApartmentUrl(const char* strUrl) = 0;
    virtual void setRemoteApartmentUrl(const char* strUrl) = 0;
    // Size protocol: a null buffer asks for length + 1 (true); a buffer of at
    // least that size receives the text (true); a smaller one fails and
    // changes neither the buffer nor dwLen.
    virtual bool getLocalApartmentUrl(char* pValue, DWORD& dwLen) const = 0;
    virtual bool getRemoteApartmentUrl(char* pValue, DWORD& dwLen) const = 0;
    virtual bool getLocalAddress(char* pValue, DWORD& dwLen) const = 0;
    virtual bool getRemoteAddress(char* pValue, DWORD& dwLen) const = 0;
    // 0 when both sinks stand for the same connection; -2 for a null peer or
    // a missing URL; otherwise a non-zero value whose sign means nothing.
    virtual int compareConnection(const IApartmentSink* pOther) const = 0;
    // Writes one whole frame; false when it could not (the link may then
    // hold part of it and is not reusable). Blocks while the link makes
    // progress; a 100 ms stall ends it.
    virtual bool sendFrame(const unsigned int& uintFrameType, const void* pData,
                           const unsigned int& uintSize) = 0;
    // sendFrame of a payload that is `pHead` followed by `pTail` (either may
    // be null with size 0), written without joining the two first: the
    // frame writers pass their encoded fields and the caller's own data.
    virtual bool sendFrameParts(const unsigned int& uintFrameType, const void* pHead,
                                unsigned int uintHeadSize, const void* pTail,
                                unsigned int uintTailSize) = 0;
    // Never blocks. True when a whole frame is available: with a null
    // buffer, its type and size are reported and it stays held; with a
    // buffer of at least `uintSize` bytes it is delivered. False when no
    // whole frame is there yet, or the buffer is too small (frame kept).
    // An empty frame is taken only with a non-null buffer (any address, size
    // 0 will do): a null buffer always means "report", so a caller that
    // passes null for an empty frame would be told about it for ever.
    virtual bool receiveFrame(unsigned int& uintFrameType, void* pBuffer,
                              unsigned int& uintSize) = 0;
};

class IApartmentServerSink : public IBase {
public:
    static const char* interfaceName() { return "IApartmentServerSink"; }

    // Reads the peer's connection frame: its real-time flag into
    // bRtConnection and its URL as the remote apartment URL. Each wait for
    // data lasts up to dwTimeoutMs; false when none comes, the link breaks
    // or it stops making progress.
    virtual bool waitRemoteConnectionInfo(DWORD dwTimeoutMs, bool& bRtConnection) = 0;
};

class IApartmentListenSink : public IBase {
public:
    static const char* interfaceName() { return "IApartmentListenSink"; }

    // Waits up to dwTimeoutMs for a connection and accepts it into a new,
    // initialised server sink holding one reference for the caller; null
    // when none came or setting it up failed.
    virtual IApartmentServerSink* processConnectRequest(DWORD dwTimeoutMs) = 0;
};

class ITcpApartmentSink : public IBase {
public:
    static const char* interfaceName() { return "ITcpApartmentSink"; }

    // The link's socket descriptor, -1 when there is none.
    virtual int getSocketFd() const = 0;
};

class IApartmentSinkStub : public TRootStub<IApartmentSink> {};

inline IApartmentSink* asIApartmentSink(IBase* pObject) {
    return queryInterfaceAs<IApartmentSink>(pObject);
}
inline IApartmentListenSink* asIApartmentListenSink(IBase* pObject) {
    return queryInterfaceAs<IApartmentListenSink>(pObject);
}
inline ITcpApartmentSink* asITcpApartmentSink(IBase* pObject) {
    return queryInterfaceAs<ITcpApartmentSink>(pObject);
}

#endif
