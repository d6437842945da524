#include "ApartmentSink.h"

#include <cstring>
#include <vector>

#include "GroundKit/StringAssistant/StringAssistant.h"

namespace {

// The result compareConnection gives when either side cannot be identified.
const int UNIDENTIFIED_CONNECTION = -2;

std::string textOrEmpty(const char* text) { return text == nullptr ? std::string() : text; }

// A listen or client sink names its own end; any other sink its peer's.
bool identifiedByOwnEnd(APARTMENT_SINK_TYPE type) {
    return type == LISTEN_SINK || type == CLIENT_SINK;
}

using BufferGetter = bool (IApartmentSink::*)(char*, DWORD&) const;

bool getAsString(const IApartmentSink* pSink, BufferGetter getter, std::string& out) {
    if (pSink == nullptr) return false;
    DWORD dwLen = 0;
    if (!(pSink->*getter)(nullptr, dwLen) || dwLen == 0) return false;
    std::vector<char> buffer(dwLen, '\0');
    (pSink->*getter)(buffer.data(), dwLen);
    out.assign(buffer.data());
    return true;
}

}  // namespace

CApartmentSink::CApartmentSink()
    : m_bSinkClosed(true),
      m_bExpectSinkClosed(false),
      m_bRtConnection(false),
      m_intLoopbackType(NONE_LOOPBACK_TYPE) {}

CApartmentSink::~CApartmentSink() {}

bool CApartmentSink::initSink(const char* localAddress, const char* remoteAddress) {
    m_strLocalAddress = textOrEmpty(localAddress);
    m_strRemoteAddress = textOrEmpty(remoteAddress);
    m_bSinkClosed = true;
    m_bExpectSinkClosed = false;
    m_bRtConnection = false;
    m_intLoopbackType = NONE_LOOPBACK_TYPE;
    if (onSinkInited(localAddress, remoteAddress)) {
        m_bSinkClosed = false;
        return true;
    }
    destroySink();
    return false;
}

bool CApartmentSink::destroySink() {
    if (!onSinkDestroyed()) return false;
    m_strLocalApartmentUrl.clear();
    m_strRemoteApartmentUrl.clear();
    m_strLocalAddress.clear();
    m_strRemoteAddress.clear();
    m_bSinkClosed = true;
    return true;
}

void CApartmentSink::closeSink() {
    onSinkClose();
    m_bSinkClosed = true;
    m_bExpectSinkClosed = false;
}

bool CApartmentSink::isSinkClosed() const { return m_bSinkClosed; }
bool CApartmentSink::isExpectSinkClosed() const { return m_bExpectSinkClosed; }
void CApartmentSink::setExpectSinkClosed(bool bExpect) { m_bExpectSinkClosed = bExpect; }
void CApartmentSink::setRTConnection(bool bRt) { m_bRtConnection = bRt; }
bool CApartmentSink::getRTConnection() const { return m_bRtConnection; }
void CApartmentSink::setLoopbackType(APARTMENT_LOOPBACK_TYPE type) { m_intLoopbackType = type; }
APARTMENT_LOOPBACK_TYPE CApartmentSink::getLoopbackType() const { return m_intLoopbackType; }

void CApartmentSink::setLocalApartmentUrl(const char* strUrl) {
    m_strLocalApartmentUrl = textOrEmpty(strUrl);
}

void CApartmentSink::setRemoteApartmentUrl(const char* strUrl) {
    m_strRemoteApartmentUrl = textOrEmpty(strUrl);
}

bool CApartmentSink::getLocalApartmentUrl(char* pValue, DWORD& dwLen) const {
    return CStringAssistant::getBaseStringFromSTLString(m_strLocalApartmentUrl, pValue, dwLen);
}

bool CApartmentSink::getRemoteApartmentUrl(char* pValue, DWORD& dwLen) const {
    return CStringAssistant::getBaseStringFromSTLString(m_strRemoteApartmentUrl, pValue, dwLen);
}

bool CApartmentSink::getLocalAddress(char* pValue, DWORD& dwLen) const {
    return CStringAssistant::getBaseStringFromSTLString(m_strLocalAddress, pValue, dwLen);
}

bool CApartmentSink::getRemoteAddress(char* pValue, DWORD& dwLen) const {
    return CStringAssistant::getBaseStringFromSTLString(m_strRemoteAddress, pValue, dwLen);
}

int CApartmentSink::compareConnection(const IApartmentSink* pOther) const {
    if (pOther == nullptr) return UNIDENTIFIED_CONNECTION;

    const bool ownEnd = identifiedByOwnEnd(sinkType());
    const std::string& myUrl = ownEnd ? m_strLocalApartmentUrl : m_strRemoteApartmentUrl;
    const std::string& myAddress = ownEnd ? m_strLocalAddress : m_strRemoteAddress;

    std::string otherUrl;
    std::string otherAddress;
    if (identifiedByOwnEnd(pOther->sinkType())) {
        CApartmentSinkHelper::getLocalApartmentUrl(pOther, otherUrl);
        CApartmentSinkHelper::getLocalAddress(pOther, otherAddress);
    } else {
        CApartmentSinkHelper::getRemoteApartmentUrl(pOther, otherUrl);
        CApartmentSinkHelper::getRemoteAddress(pOther, otherAddress);
    }

    if (myUrl.empty() || otherUrl.empty()) return UNIDENTIFIED_CONNECTION;
    const int byUrl = std::strcmp(myUrl.c_str(), otherUrl.c_str());
    if (byUrl != 0) return byUrl;
    return std::strcmp(myAddress.c_str(), otherAddress.c_str());
}

bool CApartmentSink::sendFrameParts(const unsigned int& uintFrameType, const void* pHead,
                                    unsigned int uintHeadSize, const void* pTail,
                                    unsigned int uintTailSize) {
    if (uintTailSize == 0 || pTail == nullptr) return sendFrame(uintFrameType, pHead, uintHeadSize);
    if (uintHeadSize == 0 || pHead == nullptr) return sendFrame(uintFrameType, pTail, uintTailSize);
    if (uintTailSize > 0xFFFFFFFFu - uintHeadSize) return false;
    std::vector<char> joined(static_cast<const char*>(pHead),
                             static_cast<const char*>(pHead) + uintHeadSize);
    joined.insert(joined.end(), static_cast<const char*>(pTail),
                  static_cast<const char*>(pTail) + uintTailSize);
    const unsigned int size = static_cast<unsigned int>(joined.size());
    return sendFrame(uintFrameType, joined.data(), size);
}

bool CApartmentSinkHelper::getLocalApartmentUrl(const IApartmentSink* pSink, std::string& out) {
    return getAsString(pSink, &IApartmentSink::getLocalApartmentUrl, out);
}

bool CApartmentSinkHelper::getRemoteApartmentUrl(const IApartmentSink* pSink, std::string& out) {
    return getAsString(pSink, &IApartmentSink::getRemoteApartmentUrl, out);
}

bool CApartmentSinkHelper::getLocalAddress(const IApartmentSink* pSink, std::string& out) {
    return getAsString(pSink, &IApartmentSink::getLocalAddress, out);
}

bool CApartmentSinkHelper::getRemoteAddress(const IApartmentSink* pSink, std::string& out) {
    return getAsString(pSink, &IApartmentSink::getRemoteAddress, out);
}
