#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ApartmentFrameCodec.h"
#include "FieldKit/BoundedStream/AbstractStream.h"

namespace {

typedef std::vector<unsigned char> Bytes;
typedef CApartmentFrameCodec Codec;

Bytes bytesOf(const std::vector<char>& v) { return Bytes(v.begin(), v.end()); }

// The 8-byte frame header the sink puts in front of a payload: u32 type,
// u32 payload size, both big-endian. Written here so the tests can compare
// whole frames without the sink.
Bytes frame(unsigned int type, const std::vector<char>& payload) {
    const size_t n = payload.size();
    Bytes out(8 + n);
    out[3] = static_cast<unsigned char>(type);
    for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<unsigned char>(n >> (24 - 8 * i));
    std::copy(payload.begin(), payload.end(), out.begin() + 8);
    return out;
}

// Frame type numbers: 1 request, 2 response, 3 alive, 4 alive-acknowledge.
const unsigned int REQUEST = 1, ALIVE = 3, ALIVE_ACK = 4;

}  // namespace

TEST(FrameCodec, RequestMatchesTheReferenceFrameByteForByte) {
    const char data[2] = {'\xab', '\xcd'};
    std::vector<char> payload = Codec::buildRequestPayload(
        "tcp://10.0.0.1:5000", "cam", "tcp://10.0.0.2:6000", "ui", 7, true, data, 2);
    const Bytes expected = {
        0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x42, 0x00, 0x00, 0x00, 0x13, 0x74, 0x63, 0x70, 0x3a,
        0x2f, 0x2f, 0x31, 0x30, 0x2e, 0x30, 0x2e, 0x30, 0x2e, 0x31, 0x3a, 0x35, 0x30, 0x30, 0x30, 0x00,
        0x00, 0x00, 0x03, 0x63, 0x61, 0x6d, 0x00, 0x00, 0x00, 0x13, 0x74, 0x63, 0x70, 0x3a, 0x2f, 0x2f,
        0x31, 0x30, 0x2e, 0x30, 0x2e, 0x30, 0x2e, 0x32, 0x3a, 0x36, 0x30, 0x30, 0x30, 0x00, 0x00, 0x00,
        0x02, 0x75, 0x69, 0x00, 0x00, 0x00, 0x07, 0x01, 0xab, 0xcd};
    ASSERT_EQ(payload.size(), 66u);
    EXPECT_EQ(frame(REQUEST, payload), expected);

    APARTMENT_REQUEST_PAYLOAD parsed;
    ASSERT_TRUE(Codec::parseRequestPayload(payload.data(), 66, parsed));
    EXPECT_EQ(parsed.m_strSourceApartmentUrl, "tcp://10.0.0.1:5000");
    EXPECT_EQ(parsed.m_strSourceNodeUrl, "cam");
    EXPECT_EQ(parsed.m_strTargetApartmentUrl, "tcp://10.0.0.2:6000");
    EXPECT_EQ(parsed.m_strTargetNodeUrl, "ui");
    EXPECT_EQ(parsed.m_uintRequestId, 7u);
    EXPECT_TRUE(parsed.m_bRequireResponse);
    EXPECT_EQ(std::vector<char>(parsed.m_pData, parsed.m_pData + parsed.m_uintDataSize),
              std::vector<char>(data, data + 2));
}

TEST(FrameCodec, EdgeEncodings) {
    // Empty node name and a notification (flag 00), no data.
    std::vector<char> note = Codec::buildRequestPayload("u", "", "v", "n", 1, false, nullptr, 0);
    EXPECT_EQ(bytesOf(note), (Bytes{0, 0, 0, 1, 'u', 0, 0, 0, 0, 0, 0, 0, 1, 'v', 0, 0, 0, 1,
                                    'n', 0, 0, 0, 1, 0}));

    // A null buffer with length 10 sends no data: the payload ends with -1.
    std::vector<char> response =
        Codec::buildResponsePayload("u", "a", "v", "b", 9, -1, nullptr, 10);
    ASSERT_EQ(response.size(), 4u + 1 + 4 + 1 + 4 + 1 + 4 + 1 + 4 + 4);
    EXPECT_EQ(Bytes(response.end() - 8, response.end()),
              (Bytes{0, 0, 0, 9, 0xff, 0xff, 0xff, 0xff}));
    APARTMENT_RESPONSE_PAYLOAD parsed;
    ASSERT_TRUE(Codec::parseResponsePayload(response.data(), response.size(), parsed));
    EXPECT_EQ(parsed.m_intResponseCode, -1);
    EXPECT_EQ(parsed.m_pData, nullptr);
    EXPECT_EQ(parsed.m_uintDataSize, 0u);

    // The acknowledgement echoes the alive payload: only the type differs.
    std::vector<char> alive = Codec::buildAlivePayload("tcp://1.2.3.4:5", 0x01020304);
    EXPECT_EQ(bytesOf(alive), (Bytes{0, 0, 0, 15, 't', 'c', 'p', ':', '/', '/', '1', '.', '2',
                                     '.', '3', '.', '4', ':', '5', 1, 2, 3, 4}));
    Bytes aliveFrame = frame(ALIVE, alive), ackFrame = frame(ALIVE_ACK, alive);
    EXPECT_EQ(Bytes(aliveFrame.begin() + 4, aliveFrame.end()),
              Bytes(ackFrame.begin() + 4, ackFrame.end()));
    APARTMENT_ALIVE_PAYLOAD ack;
    ASSERT_TRUE(Codec::parseAlivePayload(alive.data(), alive.size(), ack));
    EXPECT_EQ(ack.m_strSenderApartmentUrl, "tcp://1.2.3.4:5");
    EXPECT_EQ(ack.m_uintTimerId, 0x01020304u);
}

TEST(FrameCodec, NonAsciiNamesThrowToTheWriter) {
    for (int field = 0; field < 3; ++field) {
        const char* names[3] = {"a", "b", "c"};
        names[field] = "n\xe4me";
        try {
            Codec::buildRequestPayload("u", names[0], names[1], names[2], 1, true, nullptr, 0);
            ADD_FAILURE() << "field " << field;
        } catch (CAbstractStream::CStreamException* pException) {
            EXPECT_EQ(pException->m_iExceptionCode,
                      CAbstractStream::CStreamException::UNEXPECTED_VALUE_ERROR);
            delete pException;
        }
    }
    // The sender's own URL is a std::string and may hold any text.
    EXPECT_NO_THROW(Codec::buildResponsePayload("tcp://\xc3\xa9", "a", "b", "c", 1, 0, "x", 1));
}

TEST(FrameCodec, RoundTripsWithEmptyAndLargeData) {
    for (size_t size : {size_t(0), size_t(1), size_t(1) << 20}) {
        std::vector<char> data(size);
        for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 31 + 7);
        std::vector<char> request = Codec::buildRequestPayload(
            "tcp://127.0.0.1:1", "s", "tcp://127.0.0.1:2", "t", 4294967295u, false, data.data(),
            static_cast<unsigned int>(size));
        APARTMENT_REQUEST_PAYLOAD req;
        ASSERT_TRUE(Codec::parseRequestPayload(request.data(), request.size(), req));
        EXPECT_EQ(req.m_uintRequestId, 4294967295u);
        EXPECT_FALSE(req.m_bRequireResponse);
        EXPECT_EQ(std::vector<char>(req.m_pData, req.m_pData + req.m_uintDataSize), data);

        std::vector<char> response = Codec::buildResponsePayload(
            "tcp://127.0.0.1:2", "t", "tcp://127.0.0.1:1", "s", 3, -3, data.data(),
            static_cast<unsigned int>(size));
        APARTMENT_RESPONSE_PAYLOAD rsp;
        ASSERT_TRUE(Codec::parseResponsePayload(response.data(), response.size(), rsp));
        EXPECT_EQ(rsp.m_strSourceNodeUrl, "t");
        EXPECT_EQ(rsp.m_strTargetNodeUrl, "s");
        EXPECT_EQ(rsp.m_uintRequestId, 3u);
        EXPECT_EQ(rsp.m_intResponseCode, -3);
        EXPECT_EQ(std::vector<char>(rsp.m_pData, rsp.m_pData + rsp.m_uintDataSize), data);
    }
}

TEST(FrameCodec, TruncatedPayloadsAreRejected) {
    const char data[3] = {1, 2, 3};
    std::vector<char> request =
        Codec::buildRequestPayload("tcp://a:1", "src", "tcp://b:2", "dst", 5, true, data, 3);
    std::vector<char> response =
        Codec::buildResponsePayload("tcp://b:2", "dst", "tcp://a:1", "src", 5, 0, data, 3);
    std::vector<char> alive = Codec::buildAlivePayload("tcp://a:1", 8);
    // Every cut before the data ends inside a field (the last field ends 3
    // bytes before the end).
    for (size_t cut = 0; cut < request.size() - 3; ++cut) {
        APARTMENT_REQUEST_PAYLOAD req;
        std::vector<char> part(request.begin(), request.begin() + cut);
        EXPECT_FALSE(Codec::parseRequestPayload(part.data(), cut, req)) << cut;
    }
    for (size_t cut = 0; cut < response.size() - 3; ++cut) {
        APARTMENT_RESPONSE_PAYLOAD rsp;
        std::vector<char> part(response.begin(), response.begin() + cut);
        EXPECT_FALSE(Codec::parseResponsePayload(part.data(), cut, rsp)) << cut;
    }
    for (size_t cut = 0; cut < alive.size(); ++cut) {
        APARTMENT_ALIVE_PAYLOAD ack;
        std::vector<char> part(alive.begin(), alive.begin() + cut);
        EXPECT_FALSE(Codec::parseAlivePayload(part.data(), cut, ack)) << cut;
    }
    // A prefix announcing far more than the frame holds.
    char huge[8] = {'\x7f', '\xff', '\xff', '\xff', 'a', 'b', 'c', 'd'};
    APARTMENT_ALIVE_PAYLOAD ack;
    EXPECT_FALSE(Codec::parseAlivePayload(huge, sizeof huge, ack));
    EXPECT_FALSE(Codec::parseAlivePayload(nullptr, 0, ack));
}

TEST(FrameCodec, ConnectionBlock) {
    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    std::string url = "tcp://127.0.0.1:";
    url += std::string(APARTMENT_CONNECTION_URL_CAPACITY - url.size(), '9');
    for (bool rt : {true, false}) {
        Codec::buildConnectionBlock(rt, url.c_str(), block);
        EXPECT_EQ(block[0], rt ? 1 : 0);
        EXPECT_EQ(std::string(block + 1, 128), url);
        EXPECT_EQ(block[129], 0);
        bool parsedRt = !rt;
        std::string parsed;
        ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, parsedRt, parsed));
        EXPECT_EQ(parsedRt, rt);
        EXPECT_EQ(parsed, url);
    }
    // A longer URL is cut to 128 bytes; a short one is padded with zeros.
    Codec::buildConnectionBlock(false, (url + "12345").c_str(), block);
    EXPECT_EQ(std::string(block + 1, 128), url);
    EXPECT_EQ(block[129], 0);
    Codec::buildConnectionBlock(true, "tcp://1.2.3.4:5", block);
    EXPECT_EQ(std::string(block + 16, 114), std::string(114, '\0'));

    // Reading: non-zero flag is true; the text stops at the first zero and
    // never runs past 128 bytes, even when the last byte is not zero.
    bool rt = false;
    std::string text;
    block[0] = 7;
    ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, rt, text));
    EXPECT_TRUE(rt);
    EXPECT_EQ(text, "tcp://1.2.3.4:5");
    std::memset(block, 'x', sizeof block);
    ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, rt, text));
    EXPECT_EQ(text.size(), 128u);
    ASSERT_TRUE(Codec::parseConnectionBlock(block, 5, rt, text));
    EXPECT_EQ(text, "xxxx");
    EXPECT_FALSE(Codec::parseConnectionBlock(block, 0, rt, text));
    EXPECT_FALSE(Codec::parseConnectionBlock(block, 131, rt, text));
    EXPECT_EQ(text, "xxxx");
}
