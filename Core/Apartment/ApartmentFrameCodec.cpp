#include "ApartmentFrameCodec.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "FieldKit/BoundedStream/BoundedStream.h"

namespace {

typedef CAbstractStream::CStreamException StreamException;

// Every writer builds in a stream without bound that grows by 512 bytes.
const size_t PAYLOAD_BLOCK_SIZE = 512;

// The addressing fields that open request and response payloads.
void writeRoute(CAbstractStream& stream, const std::string& strLocalApartmentUrl,
                const char* strSourceNodeUrl, const char* strTargetApartmentUrl,
                const char* strTargetNodeUrl, unsigned int uintRequestId) {
    stream << strLocalApartmentUrl << strSourceNodeUrl << strTargetApartmentUrl
           << strTargetNodeUrl << uintRequestId;
}

template <class Payload>
void readRoute(CAbstractStream& stream, Payload& payload) {
    stream >> payload.m_strSourceApartmentUrl >> payload.m_strSourceNodeUrl >>
        payload.m_strTargetApartmentUrl >> payload.m_strTargetNodeUrl >> payload.m_uintRequestId;
}

// Appends the opaque data without a prefix; the whole payload must stay
// within the header's 32-bit size field.
void appendData(std::vector<char>& payload, const void* pBuffer, unsigned int uintBufLen) {
    if (pBuffer == nullptr || uintBufLen == 0) return;
    if (uintBufLen > UINT32_MAX - payload.size()) {
        throw new StreamException(StreamException::NOT_ENOUGH_SPACE);
    }
    const char* pBytes = static_cast<const char*>(pBuffer);
    payload.insert(payload.end(), pBytes, pBytes + uintBufLen);
}

// Copies the whole stream into an exactly sized array.
std::vector<char> takeAll(CAbstractStream& stream) {
    std::vector<char> payload(stream.getLength());
    stream.readObject(payload.data(), payload.size());
    return payload;
}

void readData(CAbstractStream& stream, std::vector<char>& vecData) {
    const size_t remaining = stream.getLength();
    vecData.resize(remaining);
    if (remaining != 0) stream.readObject(vecData.data(), remaining);
}

// Attaches a reading stream over the frame, marks all its bytes readable,
// and runs `read` on it. The stream exception never leaves.
template <class Read>
bool parseInPlace(char* pFrameBuffer, unsigned int uintFrameSize, Read read) {
    try {
        CCacheStream stream(0);
        if (!stream.attach(pFrameBuffer, uintFrameSize)) return false;
        stream.writeObject(pFrameBuffer, uintFrameSize);
        read(stream);
        return true;
    } catch (StreamException* pException) {
        delete pException;
    } catch (const std::bad_alloc&) {
    }
    return false;
}

}  // namespace

std::vector<char> CApartmentFrameCodec::buildRequestHead(const std::string& strLocalApartmentUrl,
                                                         const char* strSourceNodeUrl,
                                                         const char* strTargetApartmentUrl,
                                                         const char* strTargetNodeUrl,
                                                         unsigned int uintRequestId,
                                                         bool bRequireResponse) {
    CBoundedStream stream(0, PAYLOAD_BLOCK_SIZE);
    writeRoute(stream, strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
               strTargetNodeUrl, uintRequestId);
    stream << bRequireResponse;
    return takeAll(stream);
}

std::vector<char> CApartmentFrameCodec::buildResponseHead(const std::string& strLocalApartmentUrl,
                                                          const char* strSourceNodeUrl,
                                                          const char* strTargetApartmentUrl,
                                                          const char* strTargetNodeUrl,
                                                          unsigned int uintRequestId,
                                                          int intResponseCode) {
    CBoundedStream stream(0, PAYLOAD_BLOCK_SIZE);
    writeRoute(stream, strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
               strTargetNodeUrl, uintRequestId);
    stream << intResponseCode;
    return takeAll(stream);
}

std::vector<char> CApartmentFrameCodec::buildRequestPayload(
    const std::string& strLocalApartmentUrl, const char* strSourceNodeUrl,
    const char* strTargetApartmentUrl, const char* strTargetNodeUrl, unsigned int uintRequestId,
    bool bRequireResponse, const void* pRequestBuffer, unsigned int uintBufLen) {
    std::vector<char> payload =
        buildRequestHead(strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                         strTargetNodeUrl, uintRequestId, bRequireResponse);
    appendData(payload, pRequestBuffer, uintBufLen);
    return payload;
}

std::vector<char> CApartmentFrameCodec::buildResponsePayload(
    const std::string& strLocalApartmentUrl, const char* strSourceNodeUrl,
    const char* strTargetApartmentUrl, const char* strTargetNodeUrl, unsigned int uintRequestId,
    int intResponseCode, const void* pResponseBuffer, unsigned int uintBufLen) {
    std::vector<char> payload =
        buildResponseHead(strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                          strTargetNodeUrl, uintRequestId, intResponseCode);
    appendData(payload, pResponseBuffer, uintBufLen);
    return payload;
}

std::vector<char> CApartmentFrameCodec::buildAlivePayload(const std::string& strLocalApartmentUrl,
                                                          unsigned int uintTimerId) {
    CBoundedStream stream(0, PAYLOAD_BLOCK_SIZE);
    stream << strLocalApartmentUrl << uintTimerId;
    return takeAll(stream);
}

bool CApartmentFrameCodec::parseRequestPayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                               APARTMENT_REQUEST_PAYLOAD& payload) {
    APARTMENT_REQUEST_PAYLOAD parsed;
    if (!parseInPlace(pFrameBuffer, uintFrameSize, [&parsed](CAbstractStream& stream) {
            readRoute(stream, parsed);
            stream >> parsed.m_bRequireResponse;
            readData(stream, parsed.m_vecData);
        })) {
        return false;
    }
    payload = std::move(parsed);
    return true;
}

bool CApartmentFrameCodec::parseResponsePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                                APARTMENT_RESPONSE_PAYLOAD& payload) {
    APARTMENT_RESPONSE_PAYLOAD parsed;
    if (!parseInPlace(pFrameBuffer, uintFrameSize, [&parsed](CAbstractStream& stream) {
            readRoute(stream, parsed);
            stream >> parsed.m_intResponseCode;
            readData(stream, parsed.m_vecData);
        })) {
        return false;
    }
    payload = std::move(parsed);
    return true;
}

bool CApartmentFrameCodec::parseAlivePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                             APARTMENT_ALIVE_PAYLOAD& payload) {
    APARTMENT_ALIVE_PAYLOAD parsed;
    // Anything after the timer id is ignored, as the heartbeat reads only
    // these two fields.
    if (!parseInPlace(pFrameBuffer, uintFrameSize, [&parsed](CAbstractStream& stream) {
            stream >> parsed.m_strSenderApartmentUrl >> parsed.m_uintTimerId;
        })) {
        return false;
    }
    payload = std::move(parsed);
    return true;
}

void CApartmentFrameCodec::buildConnectionBlock(bool bRtConnection, const char* strApartmentUrl,
                                                char* pBlock) {
    if (pBlock == nullptr) return;
    std::memset(pBlock, 0, APARTMENT_CONNECTION_BLOCK_SIZE);
    pBlock[0] = bRtConnection ? 1 : 0;
    if (strApartmentUrl != nullptr) {
        std::strncpy(pBlock + 1, strApartmentUrl, APARTMENT_CONNECTION_URL_CAPACITY);
    }
}

bool CApartmentFrameCodec::parseConnectionBlock(const char* pBlock, size_t size,
                                                bool& bRtConnection,
                                                std::string& strApartmentUrl) {
    if (pBlock == nullptr || size == 0 || size > APARTMENT_CONNECTION_BLOCK_SIZE) return false;
    size_t limit = size - 1;
    if (limit > APARTMENT_CONNECTION_URL_CAPACITY) limit = APARTMENT_CONNECTION_URL_CAPACITY;
    const char* pUrl = pBlock + 1;
    const void* pZero = std::memchr(pUrl, 0, limit);
    const size_t length = pZero != nullptr ? static_cast<const char*>(pZero) - pUrl : limit;
    bRtConnection = pBlock[0] != 0;
    strApartmentUrl.assign(pUrl, length);
    return true;
}
