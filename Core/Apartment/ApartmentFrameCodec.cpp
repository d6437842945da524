#include "ApartmentFrameCodec.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "FieldKit/BoundedStream/AbstractStream.h"
#include "FieldKit/Environment/EndianType.h"
#include "GroundKit/OS/OS_CLibrary.h"
#include "GroundKit/OS/OS_UTF8Helper.h"

namespace {

typedef CAbstractStream::CStreamException StreamException;

[[noreturn]] void fail(int32_t iCode) { throw new StreamException(iCode); }

// Fields are written straight into one exactly sized array and read straight
// out of the received buffer, with the encodings of the serialisation
// streams (FieldKit/BoundedStream): no call into a byte store per field,
// one allocation per payload built.
class Writer {
public:
    // A node name or destination URL: pure ASCII, else (or for null)
    // UNEXPECTED_VALUE_ERROR before anything is written.
    void text(const char* pText) {
        if (pText == nullptr) fail(StreamException::UNEXPECTED_VALUE_ERROR);
        const size_t length = std::strlen(pText);
        if (!OS::CLibrary::String::isAsciiText(pText, length))
            fail(StreamException::UNEXPECTED_VALUE_ERROR);
        m_texts[m_count++] = Text{pText, length};
    }
    // The sender's own URL: carried as UTF-8.
    void localText(std::string_view text) {
        if (OS::CLibrary::String::isAsciiText(text.data(), text.size())) {
            m_texts[m_count++] = Text{text.data(), text.size()};
        } else {
            m_converted = OS::UTF8Helper::oemToUTF8(std::string(text));
            m_texts[m_count++] = Text{m_converted.data(), m_converted.size()};
        }
    }
    // The size of the texts laid down, with `tailSize` bytes after them.
    size_t size(size_t tailSize) const {
        size_t size = tailSize;
        for (unsigned int i = 0; i < m_count; ++i) {
            if (m_texts[i].length > UINT32_MAX) fail(StreamException::NOT_ENOUGH_SPACE);
            size += 4 + m_texts[i].length;
        }
        return size;
    }
    // Lays the texts down at p; returns where the tail goes.
    char* write(char* p) const {
        for (unsigned int i = 0; i < m_count; ++i) {
            p = putU32(p, static_cast<uint32_t>(m_texts[i].length));
            if (m_texts[i].length != 0) std::memcpy(p, m_texts[i].pText, m_texts[i].length);
            p += m_texts[i].length;
        }
        return p;
    }
    std::vector<char> take(size_t tailSize, char*& pTail) const {
        std::vector<char> payload(size(tailSize));
        pTail = write(payload.data());
        return payload;
    }
    static char* putU32(char* p, uint32_t value) {
        CEndianType::hostToNetwork(value);
        std::memcpy(p, &value, 4);
        return p + 4;
    }

private:
    struct Text {
        const char* pText;
        size_t length;
    };
    Text m_texts[4];
    unsigned int m_count = 0;
    std::string m_converted;
};

// Reads fields off a received buffer; false once a field runs past its end.
class Reader {
public:
    Reader(const char* pBuffer, unsigned int uintSize) : m_p(pBuffer), m_left(uintSize) {}

    bool u32(uint32_t& value) {
        if (m_left < 4) return false;
        std::memcpy(&value, m_p, 4);
        value = CEndianType::networkToHost(value);
        m_p += 4;
        m_left -= 4;
        return true;
    }
    bool i32(int& value) {
        uint32_t bits = 0;
        if (!u32(bits)) return false;
        std::memcpy(&value, &bits, sizeof value);
        return true;
    }
    bool flag(bool& value) {
        if (m_left < 1) return false;
        value = *m_p != 0;
        ++m_p;
        --m_left;
        return true;
    }
    // UTF-8 on the wire, the local code page in memory (ASCII is the same
    // in both; anything else is converted, up to a zero byte as C text).
    bool text(std::string& value) {
        uint32_t length = 0;
        if (!u32(length) || length > m_left) return false;
        if (OS::CLibrary::String::isAsciiText(m_p, length))
            value.assign(m_p, length);
        else
            value = OS::UTF8Helper::oemFromUTF8(std::string(m_p, length).c_str());
        m_p += length;
        m_left -= length;
        return true;
    }
    const char* position() const { return m_p; }
    bool skip(uint32_t length) {
        if (length > m_left) return false;
        m_p += length;
        m_left -= length;
        return true;
    }
    // The rest is the data, pointed at where it lies.
    template <class Payload>
    void rest(Payload& payload) {
        payload.m_uintDataSize = m_left;
        payload.m_pData = m_left != 0 ? m_p : nullptr;
    }

private:
    const char* m_p;
    unsigned int m_left;
};

// The addressing fields that open request and response payloads.
void writeRoute(Writer& writer, std::string_view strLocalApartmentUrl,
                const char* strSourceNodeUrl, const char* strTargetApartmentUrl,
                const char* strTargetNodeUrl) {
    writer.localText(strLocalApartmentUrl);
    writer.text(strSourceNodeUrl);
    writer.text(strTargetApartmentUrl);
    writer.text(strTargetNodeUrl);
}

// Lays the four addressing texts down in the route's store, each followed
// by a zero, and points the route's fields at them. The store grows only
// for a longer route than any before.
bool storeRoute(APARTMENT_PAYLOAD_ROUTE& route, const char* const texts[4],
                const uint32_t lengths[4]) {
    std::string converted[4];  // UTF-8 on the wire, the local code page in memory
    const char* from[4];
    size_t sizes[4];
    size_t total = 0;
    for (int i = 0; i < 4; ++i) {
        from[i] = texts[i];
        sizes[i] = lengths[i];
        if (!OS::CLibrary::String::isAsciiText(texts[i], lengths[i])) {
            converted[i] = OS::UTF8Helper::oemFromUTF8(std::string(texts[i], lengths[i]).c_str());
            from[i] = converted[i].data();
            sizes[i] = converted[i].size();
        }
        total += sizes[i] + 1;
    }
    if (route.m_uintTextsCapacity < total) {
        route.m_pTexts.reset(new (std::nothrow) char[total]);
        route.m_uintTextsCapacity = route.m_pTexts ? total : 0;
        if (!route.m_pTexts) return false;
    }
    const char** fields[4] = {&route.m_strSourceApartmentUrl, &route.m_strSourceNodeUrl,
                              &route.m_strTargetApartmentUrl, &route.m_strTargetNodeUrl};
    char* p = route.m_pTexts.get();
    for (int i = 0; i < 4; ++i) {
        if (sizes[i] != 0) std::memcpy(p, from[i], sizes[i]);
        p[sizes[i]] = '\0';
        *fields[i] = p;
        p += sizes[i] + 1;
    }
    return true;
}

// Parses a request or response payload: the addressing fields, then the
// field `last` reads, then the data, pointed at where it lies. The texts
// are checked in place first and copied once, into the route's store.
template <class Payload, class Last>
bool parseRouted(char* pFrameBuffer, unsigned int uintFrameSize, Payload& payload, Last last) {
    if (pFrameBuffer == nullptr && uintFrameSize != 0) return false;
    Reader reader(pFrameBuffer, uintFrameSize);
    const char* texts[4];
    uint32_t lengths[4];
    for (int i = 0; i < 4; ++i) {
        texts[i] = reader.position();
        if (!reader.u32(lengths[i]) || !reader.skip(lengths[i])) return false;
        texts[i] += 4;
    }
    if (!reader.u32(payload.m_uintRequestId) || !last(reader)) return false;
    try {
        if (!storeRoute(payload, texts, lengths)) return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    reader.rest(payload);
    return true;
}

// Appends the opaque data without a prefix; the whole payload must stay
// within the header's 32-bit size field.
void appendData(std::vector<char>& payload, const void* pBuffer, unsigned int uintBufLen) {
    if (pBuffer == nullptr || uintBufLen == 0) return;
    if (uintBufLen > UINT32_MAX - payload.size()) fail(StreamException::NOT_ENOUGH_SPACE);
    const char* pBytes = static_cast<const char*>(pBuffer);
    payload.insert(payload.end(), pBytes, pBytes + uintBufLen);
}

}  // namespace

char* CPayloadHead::allocate(size_t size) {
    if (size > UINT32_MAX) throw new CAbstractStream::CStreamException(
        CAbstractStream::CStreamException::NOT_ENOUGH_SPACE);
    m_uintSize = static_cast<unsigned int>(size);
    if (size <= sizeof m_inline) {
        m_pData = m_inline;
    } else {
        m_heap.resize(size);
        m_pData = m_heap.data();
    }
    return m_pData;
}

namespace {
// Lays down the addressing fields and the request id, with room for the
// `lastSize` bytes of the field that ends the head; returns where it goes.
char* writeRoutedHead(CPayloadHead& head, std::string_view strLocalApartmentUrl,
                      const char* strSourceNodeUrl, const char* strTargetApartmentUrl,
                      const char* strTargetNodeUrl, unsigned int uintRequestId, size_t lastSize) {
    Writer writer;
    writeRoute(writer, strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
               strTargetNodeUrl);
    return Writer::putU32(writer.write(head.allocate(writer.size(4 + lastSize))), uintRequestId);
}
}  // namespace

void CApartmentFrameCodec::buildRequestHead(CPayloadHead& head,
                                            std::string_view strLocalApartmentUrl,
                                            const char* strSourceNodeUrl,
                                            const char* strTargetApartmentUrl,
                                            const char* strTargetNodeUrl,
                                            unsigned int uintRequestId, bool bRequireResponse) {
    char* flag = writeRoutedHead(head, strLocalApartmentUrl, strSourceNodeUrl,
                                 strTargetApartmentUrl, strTargetNodeUrl, uintRequestId, 1);
    *flag = bRequireResponse ? 1 : 0;
}

void CApartmentFrameCodec::buildResponseHead(CPayloadHead& head,
                                             std::string_view strLocalApartmentUrl,
                                             const char* strSourceNodeUrl,
                                             const char* strTargetApartmentUrl,
                                             const char* strTargetNodeUrl,
                                             unsigned int uintRequestId, int intResponseCode) {
    uint32_t code = 0;
    std::memcpy(&code, &intResponseCode, sizeof code);
    Writer::putU32(writeRoutedHead(head, strLocalApartmentUrl, strSourceNodeUrl,
                                   strTargetApartmentUrl, strTargetNodeUrl, uintRequestId, 4),
                   code);
}

std::vector<char> CApartmentFrameCodec::buildRequestPayload(
    const std::string& strLocalApartmentUrl, const char* strSourceNodeUrl,
    const char* strTargetApartmentUrl, const char* strTargetNodeUrl, unsigned int uintRequestId,
    bool bRequireResponse, const void* pRequestBuffer, unsigned int uintBufLen) {
    CPayloadHead head;
    buildRequestHead(head, strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                     strTargetNodeUrl, uintRequestId, bRequireResponse);
    std::vector<char> payload(head.data(), head.data() + head.size());
    appendData(payload, pRequestBuffer, uintBufLen);
    return payload;
}

std::vector<char> CApartmentFrameCodec::buildResponsePayload(
    const std::string& strLocalApartmentUrl, const char* strSourceNodeUrl,
    const char* strTargetApartmentUrl, const char* strTargetNodeUrl, unsigned int uintRequestId,
    int intResponseCode, const void* pResponseBuffer, unsigned int uintBufLen) {
    CPayloadHead head;
    buildResponseHead(head, strLocalApartmentUrl, strSourceNodeUrl, strTargetApartmentUrl,
                      strTargetNodeUrl, uintRequestId, intResponseCode);
    std::vector<char> payload(head.data(), head.data() + head.size());
    appendData(payload, pResponseBuffer, uintBufLen);
    return payload;
}

std::vector<char> CApartmentFrameCodec::buildAlivePayload(std::string_view strLocalApartmentUrl,
                                                          unsigned int uintTimerId) {
    Writer writer;
    writer.localText(strLocalApartmentUrl);
    char* tail = nullptr;
    std::vector<char> payload = writer.take(4, tail);
    Writer::putU32(tail, uintTimerId);
    return payload;
}

bool CApartmentFrameCodec::parseRequestPayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                               APARTMENT_REQUEST_PAYLOAD& payload) {
    return parseRouted(pFrameBuffer, uintFrameSize, payload,
                       [&payload](Reader& reader) { return reader.flag(payload.m_bRequireResponse); });
}

bool CApartmentFrameCodec::parseResponsePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                                APARTMENT_RESPONSE_PAYLOAD& payload) {
    return parseRouted(pFrameBuffer, uintFrameSize, payload,
                       [&payload](Reader& reader) { return reader.i32(payload.m_intResponseCode); });
}

bool CApartmentFrameCodec::parseAlivePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                             APARTMENT_ALIVE_PAYLOAD& payload) {
    if (pFrameBuffer == nullptr && uintFrameSize != 0) return false;
    APARTMENT_ALIVE_PAYLOAD parsed;
    Reader reader(pFrameBuffer, uintFrameSize);
    // Anything after the timer id is ignored, as the heartbeat reads only
    // these two fields.
    try {
        if (!reader.text(parsed.m_strSenderApartmentUrl) || !reader.u32(parsed.m_uintTimerId))
            return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    payload = std::move(parsed);
    return true;
}

unsigned int CApartmentFrameCodec::dataOffset(unsigned int uintFrameType, const char* pPayload,
                                              unsigned int uintFrameSize) {
    // The four strings, then the id and a flag (request) or a code (response).
    unsigned int fixed;
    if (uintFrameType == 1)
        fixed = 5;
    else if (uintFrameType == 2)
        fixed = 8;
    else
        return 0;
    Reader reader(pPayload, uintFrameSize);
    unsigned int offset = 0;
    for (int i = 0; i < 4; ++i) {
        uint32_t length = 0;
        if (!reader.u32(length) || !reader.skip(length)) return 0;
        offset += 4 + length;
    }
    return reader.skip(fixed) ? offset + fixed : 0;
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
