// CApartmentSink: the state every sink shares (flags, apartment URLs,
// transport addresses), and the bookkeeping of initSink / destroySink /
// closeSink around three transport hooks that a derived sink supplies.
//
// Created by the apartment with a count of 1; destroyed by its last release.
// It has no lock of its own: the URLs and addresses are written by the
// apartment under its connection lock (or before the sink is shared) and
// read by the communication threads. The four flags are atomic because a
// sending thread may condemn the link (setExpectSinkClosed) while the owning
// communication thread reads it.
#ifndef APARTMENT_APARTMENTSINK_H
#define APARTMENT_APARTMENTSINK_H

#include <atomic>
#include <string>

#include "IApartmentSink.h"

class CApartmentSink : public IApartmentSinkStub {
public:
    CApartmentSink();
    virtual ~CApartmentSink();

    bool initSink(const char* localAddress, const char* remoteAddress) override;
    bool destroySink() override;
    void closeSink() override;
    bool isSinkClosed() const override;
    bool isExpectSinkClosed() const override;
    void setExpectSinkClosed(bool bExpect) override;
    void setRTConnection(bool bRt) override;
    bool getRTConnection() const override;
    void setLoopbackType(APARTMENT_LOOPBACK_TYPE type) override;
    APARTMENT_LOOPBACK_TYPE getLoopbackType() const override;
    void setLocalApartmentUrl(const char* strUrl) override;
    void setRemoteApartmentUrl(const char* strUrl) override;
    bool getLocalApartmentUrl(char* pValue, DWORD& dwLen) const override;
    bool getRemoteApartmentUrl(char* pValue, DWORD& dwLen) const override;
    bool getLocalAddress(char* pValue, DWORD& dwLen) const override;
    bool getRemoteAddress(char* pValue, DWORD& dwLen) const override;
    // A listen or client sink is identified by its own end, a server sink by
    // its peer's, so that a server sink and the peer's client sink of one
    // link compare equal.
    int compareConnection(const IApartmentSink* pOther) const override;
    // Joins the two parts and calls sendFrame; a transport that can write
    // them as they are overrides it.
    bool sendFrameParts(const unsigned int& uintFrameType, const void* pHead,
                        unsigned int uintHeadSize, const void* pTail,
                        unsigned int uintTailSize) override;

protected:
    // Transport hooks, run by initSink, destroySink and closeSink on the
    // thread that calls those. onSinkInited receives initSink's pointers as
    // given (possibly null); its false makes initSink destroy the sink.
    virtual bool onSinkInited(const char* localAddress, const char* remoteAddress) = 0;
    virtual bool onSinkDestroyed() = 0;
    virtual void onSinkClose() = 0;

    std::atomic<bool> m_bSinkClosed;
    std::atomic<bool> m_bExpectSinkClosed;
    std::atomic<bool> m_bRtConnection;
    std::atomic<APARTMENT_LOOPBACK_TYPE> m_intLoopbackType;
    std::string m_strLocalApartmentUrl;
    std::string m_strRemoteApartmentUrl;
    std::string m_strLocalAddress;
    std::string m_strRemoteAddress;
};

// Buffer-style sink getters as strings. Each returns false, leaving `out`
// unchanged, for a null sink or when the sink does not report a size.
class CApartmentSinkHelper {
public:
    static bool getLocalApartmentUrl(const IApartmentSink* pSink, std::string& out);
    static bool getRemoteApartmentUrl(const IApartmentSink* pSink, std::string& out);
    static bool getLocalAddress(const IApartmentSink* pSink, std::string& out);
    static bool getRemoteAddress(const IApartmentSink* pSink, std::string& out);
};

#endif
