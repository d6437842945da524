// The payloads of the structured frames: the one place that turns their
// fields into bytes and back. The frame writers and the arrival handlers of
// the apartment and the heartbeat go through it; the frame header and the
// sending are the sink's business.
//
// Layouts (every integer big-endian; "string" is a 4-byte byte count and the
// bytes; "data" is the rest of the payload, without a count of its own):
//   request   string source apartment URL, string source node,
//             string destination apartment URL, string destination node,
//             u32 request id, u8 require-response flag, data
//   response  the same four strings, u32 request id, i32 response code, data
//   alive     string sender apartment URL, u32 heartbeat timer id
//             (the alive-acknowledge payload is the alive payload echoed)
//   connection  a fixed block, not a stream: u8 real-time flag, 128 bytes of
//             the connecting apartment's URL padded with zeros, u8 zero
//
// The encodings are those of the serialisation streams (FieldKit/
// BoundedStream), applied directly: a payload is built into one exactly
// sized array and parsed in place, without a call into a byte store per
// field (which, per frame, cost more than the rest of the codec).
//
// The build operations throw; the parse operations never throw. Everything
// is static and stateless: any thread may call it.
#ifndef APARTMENT_APARTMENTFRAMECODEC_H
#define APARTMENT_APARTMENTFRAMECODEC_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Size of the connection frame's payload, and the most URL bytes it carries.
static const size_t APARTMENT_CONNECTION_BLOCK_SIZE = 130;
static const size_t APARTMENT_CONNECTION_URL_CAPACITY = 128;

// The addressing fields that open a received request or response payload,
// as C texts laid out one after another in storage of their own, which
// keeps its room from one parse to the next: a parse then costs no
// allocation and no string per field. Not copied: the texts point into it.
struct APARTMENT_PAYLOAD_ROUTE {
    APARTMENT_PAYLOAD_ROUTE() = default;
    APARTMENT_PAYLOAD_ROUTE(const APARTMENT_PAYLOAD_ROUTE&) = delete;
    APARTMENT_PAYLOAD_ROUTE& operator=(const APARTMENT_PAYLOAD_ROUTE&) = delete;
    const char* m_strSourceApartmentUrl = "";
    const char* m_strSourceNodeUrl = "";
    const char* m_strTargetApartmentUrl = "";
    const char* m_strTargetNodeUrl = "";
    std::unique_ptr<char[]> m_pTexts;
    size_t m_uintTextsCapacity = 0;
};

// Fields of a received request payload.
typedef struct _APARTMENT_REQUEST_PAYLOAD : APARTMENT_PAYLOAD_ROUTE {
    unsigned int m_uintRequestId = 0;
    bool m_bRequireResponse = false;
    // The opaque request data, in place in the parsed buffer (null when
    // there is none): valid while that buffer is.
    const char* m_pData = nullptr;
    unsigned int m_uintDataSize = 0;
} APARTMENT_REQUEST_PAYLOAD;

// Fields of a received response payload.
typedef struct _APARTMENT_RESPONSE_PAYLOAD : APARTMENT_PAYLOAD_ROUTE {
    unsigned int m_uintRequestId = 0;
    int m_intResponseCode = 0;
    // The opaque response data, in place as for a request.
    const char* m_pData = nullptr;
    unsigned int m_uintDataSize = 0;
} APARTMENT_RESPONSE_PAYLOAD;

// Fields of a received alive (or alive-acknowledge) payload.
typedef struct _APARTMENT_ALIVE_PAYLOAD {
    std::string m_strSenderApartmentUrl;
    unsigned int m_uintTimerId = 0;
} APARTMENT_ALIVE_PAYLOAD;

// A payload's fields as built for sending: held in the object when short
// (the usual case), so that a writer allocates nothing for them. Not
// copyable: data() may point into the object itself.
class CPayloadHead {
public:
    CPayloadHead() = default;
    CPayloadHead(const CPayloadHead&) = delete;
    CPayloadHead& operator=(const CPayloadHead&) = delete;

    const char* data() const { return m_pData; }
    unsigned int size() const { return m_uintSize; }
    // Room for `size` bytes, which the builder fills.
    char* allocate(size_t size);

private:
    char m_inline[256];
    std::vector<char> m_heap;
    char* m_pData = m_inline;
    unsigned int m_uintSize = 0;
};

class CApartmentFrameCodec {
public:
    // Each build operation returns the payload in an exactly sized array.
    //
    // strLocalApartmentUrl is the sender's own URL as recorded on the link
    // and may hold any text (carried as UTF-8). The node names and the
    // destination URL must be pure ASCII: otherwise (or when null) the stream
    // throws CAbstractStream::CStreamException* with UNEXPECTED_VALUE_ERROR
    // (-4). Exceptions are not caught here: the frame writers let them reach
    // their caller, which deletes the exception. A payload that would not
    // fit the frame header's 32-bit size throws NOT_ENOUGH_SPACE (-3).
    //
    // The data is appended only when the buffer is not null: a null buffer
    // with a non-zero length sends no data.
    static std::vector<char> buildRequestPayload(const std::string& strLocalApartmentUrl,
                                                 const char* strSourceNodeUrl,
                                                 const char* strTargetApartmentUrl,
                                                 const char* strTargetNodeUrl,
                                                 unsigned int uintRequestId, bool bRequireResponse,
                                                 const void* pRequestBuffer,
                                                 unsigned int uintBufLen);
    static std::vector<char> buildResponsePayload(const std::string& strLocalApartmentUrl,
                                                  const char* strSourceNodeUrl,
                                                  const char* strTargetApartmentUrl,
                                                  const char* strTargetNodeUrl,
                                                  unsigned int uintRequestId, int intResponseCode,
                                                  const void* pResponseBuffer,
                                                  unsigned int uintBufLen);
    // The fields alone, without the data, into `head`: the frame writers
    // send the caller's data after them as it is, without copying it in.
    // Throws as the payload builders do.
    static void buildRequestHead(CPayloadHead& head, std::string_view strLocalApartmentUrl,
                                 const char* strSourceNodeUrl, const char* strTargetApartmentUrl,
                                 const char* strTargetNodeUrl, unsigned int uintRequestId,
                                 bool bRequireResponse);
    static void buildResponseHead(CPayloadHead& head, std::string_view strLocalApartmentUrl,
                                  const char* strSourceNodeUrl, const char* strTargetApartmentUrl,
                                  const char* strTargetNodeUrl, unsigned int uintRequestId,
                                  int intResponseCode);
    static std::vector<char> buildAlivePayload(std::string_view strLocalApartmentUrl,
                                               unsigned int uintTimerId);

    // Each parse operation reads a received payload of uintFrameSize bytes in
    // place (pFrameBuffer may be null when the size is 0; its bytes are not
    // changed); the fields are copied into `payload` (whose strings keep
    // their room, so a reused payload costs no allocation), the trailing
    // data is pointed at where it lies. False means the payload is
    // malformed (it ends inside a field, or a string's count runs past its
    // end): the caller drops the frame silently, and the fields of
    // `payload` are then unspecified. They never throw.
    static bool parseRequestPayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                    APARTMENT_REQUEST_PAYLOAD& payload);
    static bool parseResponsePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                     APARTMENT_RESPONSE_PAYLOAD& payload);
    static bool parseAlivePayload(char* pFrameBuffer, unsigned int uintFrameSize,
                                  APARTMENT_ALIVE_PAYLOAD& payload);

    // Where a request's or response's data begins in its payload (the size
    // for a frame without data), or 0 for another type or a malformed
    // payload: a receiver places the payload so that the data is aligned.
    static unsigned int dataOffset(unsigned int uintFrameType, const char* pPayload,
                                   unsigned int uintFrameSize);

    // Fills the APARTMENT_CONNECTION_BLOCK_SIZE bytes at pBlock: all zero,
    // then byte 0 = 1 for the real-time link, then at most 128 bytes of the
    // URL (null counts as empty; a longer URL is cut) from offset 1. The last
    // byte stays 0, so the URL is terminated even when it fills 128 bytes.
    static void buildConnectionBlock(bool bRtConnection, const char* strApartmentUrl,
                                     char* pBlock);
    // Reads a received connection block: byte 0 non-zero means real-time;
    // the URL is the text from offset 1 up to the first zero byte, at most
    // 128 bytes. A block shorter than 130 bytes reads as if zero-padded
    // (a receiver fills a zeroed block). False, with the outputs unchanged,
    // for a null or empty block or one larger than 130 bytes, which never
    // comes from a well-behaved peer. Never throws.
    static bool parseConnectionBlock(const char* pBlock, size_t size, bool& bRtConnection,
                                     std::string& strApartmentUrl);
};

#endif
