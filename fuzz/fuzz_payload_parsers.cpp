// Arbitrary bytes into the payload parsers, as a peer on a link could send
// them. The first byte picks the parser (0 request, 1 response, 2 alive,
// 3 connection block; higher values wrap); the rest is the payload. Every
// input must be parsed or refused without a crash, a leak or a sanitizer
// report, and whatever parses must encode back to the same leading bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ApartmentFrameCodec.h"
#include "FieldKit/BoundedStream/AbstractStream.h"

namespace {

// Re-encodes a parsed payload and compares it with the first `expected`
// bytes of the input. Names that are not ASCII cannot be written back (the
// writer refuses them) and text read back shorter (a zero byte inside a
// string ends it) gives a shorter encoding: both are skipped. Whatever
// re-encodes to the expected size must be byte-identical.
template <class Build>
void checkRoundTrip(const std::vector<char>& input, size_t expected, Build build) {
    std::vector<char> encoded;
    try {
        encoded = build();
    } catch (CAbstractStream::CStreamException* pException) {
        delete pException;
        return;
    }
    if (encoded.size() != expected) return;
    if (expected > input.size() || std::memcmp(encoded.data(), input.data(), expected) != 0) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size - 1 > UINT32_MAX) return 0;
    std::vector<char> payload(data + 1, data + size);
    const unsigned int length = static_cast<unsigned int>(payload.size());
    char* buffer = payload.empty() ? nullptr : payload.data();
    const std::vector<char> input = payload;

    switch (data[0] % 4) {
    case 0: {
        APARTMENT_REQUEST_PAYLOAD parsed;
        if (CApartmentFrameCodec::parseRequestPayload(buffer, length, parsed)) {
            // Any non-zero flag byte reads as true and is written back as 01.
            std::vector<char> canonical = input;
            canonical[input.size() - parsed.m_uintDataSize - 1] = parsed.m_bRequireResponse;
            checkRoundTrip(canonical, input.size(), [&] {
                return CApartmentFrameCodec::buildRequestPayload(
                    parsed.m_strSourceApartmentUrl, parsed.m_strSourceNodeUrl,
                    parsed.m_strTargetApartmentUrl, parsed.m_strTargetNodeUrl,
                    parsed.m_uintRequestId, parsed.m_bRequireResponse, parsed.m_pData,
                    static_cast<unsigned int>(parsed.m_uintDataSize));
            });
        }
        break;
    }
    case 1: {
        APARTMENT_RESPONSE_PAYLOAD parsed;
        if (CApartmentFrameCodec::parseResponsePayload(buffer, length, parsed)) {
            checkRoundTrip(input, input.size(), [&] {
                return CApartmentFrameCodec::buildResponsePayload(
                    parsed.m_strSourceApartmentUrl, parsed.m_strSourceNodeUrl,
                    parsed.m_strTargetApartmentUrl, parsed.m_strTargetNodeUrl,
                    parsed.m_uintRequestId, parsed.m_intResponseCode, parsed.m_pData,
                    static_cast<unsigned int>(parsed.m_uintDataSize));
            });
        }
        break;
    }
    case 2: {
        APARTMENT_ALIVE_PAYLOAD parsed;
        if (CApartmentFrameCodec::parseAlivePayload(buffer, length, parsed)) {
            // Bytes after the timer id are not part of the alive payload; a
            // URL cut at a zero byte no longer matches its prefix: skipped.
            const size_t announced = (size_t(uint8_t(input[0])) << 24) |
                                     (size_t(uint8_t(input[1])) << 16) |
                                     (size_t(uint8_t(input[2])) << 8) | size_t(uint8_t(input[3]));
            const size_t expected = announced == parsed.m_strSenderApartmentUrl.size()
                                        ? 4 + announced + 4
                                        : SIZE_MAX;
            checkRoundTrip(input, expected, [&] {
                return CApartmentFrameCodec::buildAlivePayload(parsed.m_strSenderApartmentUrl,
                                                               parsed.m_uintTimerId);
            });
        }
        break;
    }
    default: {
        bool bRt = false;
        std::string url;
        if (CApartmentFrameCodec::parseConnectionBlock(buffer, payload.size(), bRt, url)) {
            if (url.size() > APARTMENT_CONNECTION_URL_CAPACITY) std::abort();
            char block[APARTMENT_CONNECTION_BLOCK_SIZE];
            CApartmentFrameCodec::buildConnectionBlock(bRt, url.c_str(), block);
            bool bRtAgain = !bRt;
            std::string urlAgain;
            if (!CApartmentFrameCodec::parseConnectionBlock(block, sizeof block, bRtAgain,
                                                            urlAgain) ||
                bRtAgain != bRt || urlAgain != url) {
                std::abort();
            }
        }
        break;
    }
    }
    // The parsers read in place and must leave the received bytes alone.
    if (payload != input) std::abort();
    return 0;
}
