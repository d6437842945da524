// The bytes between apartments: the payload codec, the sink model, the
// TCP sinks that frame a byte stream, write frames whole from many threads
// and set up a link, and the TLS channel under them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>

#include "ApartmentSink.h"
#include "FieldKit/BoundedStream/AbstractStream.h"
#include "TcpApartment.h"
#include "TcpApartmentSink.h"
#include "TlsContext.h"
#include "TlsSession.h"
#include "os_poller.h"
#include "support.h"

using namespace aptest;

namespace {

typedef CApartmentFrameCodec Codec;
typedef CAbstractStream::CStreamException StreamException;

Bytes bytesOf(const std::vector<char>& v) { return Bytes(v.begin(), v.end()); }

// ------------------------------------------------------------------- codec

TEST(FrameCodec, ARequestMatchesTheReferenceFrameByteForByte) {
    const char data[2] = {'\xab', '\xcd'};
    const std::vector<char> payload = Codec::buildRequestPayload(
        "tcp://10.0.0.1:5000", "cam", "tcp://10.0.0.2:6000", "ui", 7, true, data, 2);
    const Bytes expected = {
        0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x42, 0x00, 0x00, 0x00, 0x13, 0x74, 0x63, 0x70, 0x3a,
        0x2f, 0x2f, 0x31, 0x30, 0x2e, 0x30, 0x2e, 0x30, 0x2e, 0x31, 0x3a, 0x35, 0x30, 0x30, 0x30, 0x00,
        0x00, 0x00, 0x03, 0x63, 0x61, 0x6d, 0x00, 0x00, 0x00, 0x13, 0x74, 0x63, 0x70, 0x3a, 0x2f, 0x2f,
        0x31, 0x30, 0x2e, 0x30, 0x2e, 0x30, 0x2e, 0x32, 0x3a, 0x36, 0x30, 0x30, 0x30, 0x00, 0x00, 0x00,
        0x02, 0x75, 0x69, 0x00, 0x00, 0x00, 0x07, 0x01, 0xab, 0xcd};
    EXPECT_EQ(frame(APARTMENT_REQUEST_FRAME, payload.data(), payload.size()), expected);
    APARTMENT_REQUEST_PAYLOAD parsed;
    ASSERT_TRUE(Codec::parseRequestPayload(const_cast<char*>(payload.data()), 66, parsed));
    EXPECT_STREQ(parsed.m_strSourceApartmentUrl, "tcp://10.0.0.1:5000");
    EXPECT_STREQ(parsed.m_strSourceNodeUrl, "cam");
    EXPECT_STREQ(parsed.m_strTargetApartmentUrl, "tcp://10.0.0.2:6000");
    EXPECT_STREQ(parsed.m_strTargetNodeUrl, "ui");
    EXPECT_EQ(parsed.m_uintRequestId, 7u);
    EXPECT_TRUE(parsed.m_bRequireResponse);
    EXPECT_EQ(std::string(parsed.m_pData, parsed.m_uintDataSize), std::string(data, 2));
}

TEST(FrameCodec, EdgeEncodings) {
    // Empty node name and a notification (flag 00), no data.
    EXPECT_EQ(bytesOf(Codec::buildRequestPayload("u", "", "v", "n", 1, false, nullptr, 0)),
              (Bytes{0, 0, 0, 1, 'u', 0, 0, 0, 0, 0, 0, 0, 1, 'v', 0, 0, 0, 1, 'n', 0, 0, 0, 1, 0}));
    // A null buffer with length 10 sends no data: the payload ends with -1.
    std::vector<char> response = Codec::buildResponsePayload("u", "a", "v", "b", 9, -1, nullptr, 10);
    ASSERT_EQ(response.size(), 4u + 1 + 4 + 1 + 4 + 1 + 4 + 1 + 4 + 4);
    EXPECT_EQ(Bytes(response.end() - 8, response.end()), (Bytes{0, 0, 0, 9, 0xff, 0xff, 0xff, 0xff}));
    APARTMENT_RESPONSE_PAYLOAD parsed;
    ASSERT_TRUE(Codec::parseResponsePayload(response.data(), response.size(), parsed));
    EXPECT_EQ(parsed.m_intResponseCode, -1);
    EXPECT_EQ(parsed.m_pData, nullptr);
    EXPECT_EQ(parsed.m_uintDataSize, 0u);
    // The alive payload: URL and timer id; its acknowledgement echoes it.
    std::vector<char> alive = Codec::buildAlivePayload("tcp://1.2.3.4:5", 0x01020304);
    EXPECT_EQ(bytesOf(alive), (Bytes{0, 0, 0, 15, 't', 'c', 'p', ':', '/', '/', '1', '.', '2', '.',
                                     '3', '.', '4', ':', '5', 1, 2, 3, 4}));
    APARTMENT_ALIVE_PAYLOAD ack;
    ASSERT_TRUE(Codec::parseAlivePayload(alive.data(), alive.size(), ack));
    EXPECT_EQ(ack.m_strSenderApartmentUrl, "tcp://1.2.3.4:5");
    EXPECT_EQ(ack.m_uintTimerId, 0x01020304u);
    // Names must be ASCII; the sender's own URL is a std::string and may
    // hold any text.
    for (int field = 0; field < 3; ++field) {
        const char* names[3] = {"a", "b", "c"};
        names[field] = "n\xe4me";
        try {
            Codec::buildRequestPayload("u", names[0], names[1], names[2], 1, true, nullptr, 0);
            ADD_FAILURE() << "field " << field;
        } catch (StreamException* pException) {
            EXPECT_EQ(pException->m_iExceptionCode, StreamException::UNEXPECTED_VALUE_ERROR);
            delete pException;
        }
    }
    std::vector<char> wide = Codec::buildResponsePayload("tcp://\xc3\xa9", "a", "b", "c", 1, 0, "x", 1);
    // It arrives in the local code page, the other fields as they were.
    ASSERT_TRUE(Codec::parseResponsePayload(wide.data(), wide.size(), parsed));
    EXPECT_EQ(parsed.m_strSourceApartmentUrl, OS::UTF8Helper::oemFromUTF8("tcp://\xc3\xa9"));
    EXPECT_STREQ(parsed.m_strTargetNodeUrl, "c");
}

TEST(FrameCodec, RoundTripsWithEmptyAndLargeData) {
    for (size_t size : {size_t(0), size_t(1), size_t(1) << 20}) {
        const std::string data = text(pattern(size));
        std::vector<char> request = Codec::buildRequestPayload(
            "tcp://127.0.0.1:1", "s", "tcp://127.0.0.1:2", "t", 4294967295u, false, data.data(),
            static_cast<unsigned int>(size));
        APARTMENT_REQUEST_PAYLOAD req;
        ASSERT_TRUE(Codec::parseRequestPayload(request.data(), request.size(), req));
        EXPECT_EQ(req.m_uintRequestId, 4294967295u);
        EXPECT_FALSE(req.m_bRequireResponse);
        EXPECT_EQ(std::string(req.m_pData != nullptr ? req.m_pData : "", req.m_uintDataSize), data);
        std::vector<char> response = Codec::buildResponsePayload(
            "tcp://127.0.0.1:2", "t", "tcp://127.0.0.1:1", "s", 3, -3, data.data(),
            static_cast<unsigned int>(size));
        APARTMENT_RESPONSE_PAYLOAD rsp;
        ASSERT_TRUE(Codec::parseResponsePayload(response.data(), response.size(), rsp));
        EXPECT_STREQ(rsp.m_strSourceNodeUrl, "t");
        EXPECT_STREQ(rsp.m_strTargetNodeUrl, "s");
        EXPECT_EQ(rsp.m_uintRequestId, 3u);
        EXPECT_EQ(rsp.m_intResponseCode, -3);
        EXPECT_EQ(std::string(rsp.m_pData != nullptr ? rsp.m_pData : "", rsp.m_uintDataSize), data);
    }
}

// Every cut before the data ends inside a field (the last field ends 3
// bytes before the end); a prefix may announce far more than there is.
TEST(FrameCodec, TruncatedPayloadsAreRejected) {
    const char data[3] = {1, 2, 3};
    std::vector<char> request = Codec::buildRequestPayload("tcp://a:1", "src", "tcp://b:2", "dst", 5, true, data, 3);
    std::vector<char> response = Codec::buildResponsePayload("tcp://b:2", "dst", "tcp://a:1", "src", 5, 0, data, 3);
    std::vector<char> alive = Codec::buildAlivePayload("tcp://a:1", 8);
    APARTMENT_REQUEST_PAYLOAD req;
    APARTMENT_RESPONSE_PAYLOAD rsp;
    APARTMENT_ALIVE_PAYLOAD ack;
    for (size_t cut = 0; cut < request.size() - 3; ++cut)
        EXPECT_FALSE(Codec::parseRequestPayload(std::vector<char>(request.begin(), request.begin() + cut).data(), cut, req)) << cut;
    for (size_t cut = 0; cut < response.size() - 3; ++cut)
        EXPECT_FALSE(Codec::parseResponsePayload(std::vector<char>(response.begin(), response.begin() + cut).data(), cut, rsp)) << cut;
    for (size_t cut = 0; cut < alive.size(); ++cut)
        EXPECT_FALSE(Codec::parseAlivePayload(std::vector<char>(alive.begin(), alive.begin() + cut).data(), cut, ack)) << cut;
    char huge[8] = {'\x7f', '\xff', '\xff', '\xff', 'a', 'b', 'c', 'd'};
    EXPECT_FALSE(Codec::parseAlivePayload(huge, sizeof huge, ack));
    EXPECT_FALSE(Codec::parseAlivePayload(nullptr, 0, ack));
}

// The block holds the flag and at most 128 URL bytes, zero-padded; a
// reader takes a non-zero flag as true and stops at the first zero byte or
// after 128 bytes, even when the last byte is not zero.
TEST(FrameCodec, TheConnectionBlock) {
    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    std::string url = "tcp://127.0.0.1:";
    url += std::string(APARTMENT_CONNECTION_URL_CAPACITY - url.size(), '9');
    bool rt = false;
    std::string parsed;
    for (bool flag : {true, false}) {
        Codec::buildConnectionBlock(flag, (url + "12345").c_str(), block);
        EXPECT_EQ(block[0], flag ? 1 : 0);
        EXPECT_EQ(std::string(block + 1, 128), url);
        EXPECT_EQ(block[129], 0);
        ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, rt, parsed));
        EXPECT_EQ(rt, flag);
        EXPECT_EQ(parsed, url);
    }
    Codec::buildConnectionBlock(true, "tcp://1.2.3.4:5", block);
    EXPECT_EQ(std::string(block + 16, 114), std::string(114, '\0'));
    block[0] = 7;
    ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, rt, parsed));
    EXPECT_TRUE(rt);
    EXPECT_EQ(parsed, "tcp://1.2.3.4:5");
    std::memset(block, 'x', sizeof block);
    ASSERT_TRUE(Codec::parseConnectionBlock(block, sizeof block, rt, parsed));
    EXPECT_EQ(parsed.size(), 128u);
    ASSERT_TRUE(Codec::parseConnectionBlock(block, 5, rt, parsed));
    EXPECT_EQ(parsed, "xxxx");
    EXPECT_FALSE(Codec::parseConnectionBlock(block, 0, rt, parsed));
    EXPECT_FALSE(Codec::parseConnectionBlock(block, 131, rt, parsed));
    EXPECT_EQ(parsed, "xxxx");
}

// -------------------------------------------------------------- sink model

// A sink without transport that records what its hooks were given.
class RecordingSink : public CApartmentSink {
public:
    explicit RecordingSink(APARTMENT_SINK_TYPE type, bool initResult = true)
        : m_type(type), m_initResult(initResult) {}
    APARTMENT_SINK_TYPE sinkType() const override { return m_type; }
    bool sendFrame(const unsigned int&, const void*, const unsigned int&) override { return false; }
    bool receiveFrame(unsigned int&, void*, unsigned int&) override { return false; }

    int initedCalls = 0, closeCalls = 0;
    const char* initedLocal = "not called";
    bool destroyResult = true;

protected:
    bool onSinkInited(const char* localAddress, const char*) override {
        ++initedCalls;
        initedLocal = localAddress;
        return m_initResult;
    }
    bool onSinkDestroyed() override { return destroyResult; }
    void onSinkClose() override { ++closeCalls; }

private:
    APARTMENT_SINK_TYPE m_type;
    bool m_initResult;
};

std::string localAddressOf(const IApartmentSink* sink) {
    std::string out;
    CApartmentSinkHelper::getLocalAddress(sink, out);
    return out;
}

// Initialising resets every flag and hands the addresses on as given (null
// stored as empty); a failed init leaves the sink destroyed; closing keeps
// the identity, destroying (unless the transport refuses) forgets it.
TEST(ApartmentSink, Lifecycle) {
    RecordingSink sink(CLIENT_SINK);
    EXPECT_TRUE(sink.isSinkClosed());
    sink.setRTConnection(true);
    sink.setLoopbackType(SERVER_LOOPBACK_TYPE);
    sink.setExpectSinkClosed(true);
    ASSERT_TRUE(sink.initSink(nullptr, nullptr));
    EXPECT_EQ(sink.initedCalls, 1);
    EXPECT_EQ(sink.initedLocal, nullptr);
    DWORD length = 99;
    ASSERT_TRUE(sink.getLocalAddress(nullptr, length));
    EXPECT_EQ(length, 1UL);
    EXPECT_FALSE(sink.isSinkClosed() || sink.getRTConnection() || sink.isExpectSinkClosed());
    EXPECT_EQ(sink.getLoopbackType(), NONE_LOOPBACK_TYPE);

    RecordingSink failing(CLIENT_SINK, false);
    failing.setLocalApartmentUrl("tcp://127.0.0.1:1");
    EXPECT_FALSE(failing.initSink("127.0.0.1:1", "127.0.0.1:2"));
    EXPECT_TRUE(failing.isSinkClosed());
    EXPECT_EQ(localAddressOf(&failing), "");
    std::string url = "kept";
    EXPECT_TRUE(CApartmentSinkHelper::getLocalApartmentUrl(&failing, url));
    EXPECT_EQ(url, "");

    RecordingSink server(SERVER_SINK);
    ASSERT_TRUE(server.initSink("10.0.0.1:5", "10.0.0.2:6"));
    server.setRemoteApartmentUrl("tcp://10.0.0.2:6000");
    server.setLocalApartmentUrl(nullptr);
    server.setExpectSinkClosed(true);
    server.closeSink();
    EXPECT_EQ(server.closeCalls, 1);
    EXPECT_TRUE(server.isSinkClosed());
    EXPECT_FALSE(server.isExpectSinkClosed());
    EXPECT_EQ(localAddressOf(&server), "10.0.0.1:5");
    server.destroyResult = false;
    EXPECT_FALSE(server.destroySink());
    EXPECT_EQ(localAddressOf(&server), "10.0.0.1:5");
    server.destroyResult = true;
    EXPECT_TRUE(server.destroySink());
    EXPECT_EQ(localAddressOf(&server), "");
    EXPECT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(&server, url));
    EXPECT_EQ(url, "");
    url = "unchanged";
    EXPECT_FALSE(CApartmentSinkHelper::getLocalApartmentUrl(nullptr, url));
    EXPECT_EQ(url, "unchanged");
}

// The two ends of one link compare equal: a client by its own end, a
// server by its peer's. Without identity (no sink, no URL) it is -2.
TEST(ApartmentSink, TheEndsOfOneLinkCompareEqual) {
    RecordingSink client(CLIENT_SINK), server(SERVER_SINK), other(SERVER_SINK);
    ASSERT_TRUE(client.initSink("10.0.0.1:40000", "10.0.0.2:6000"));
    EXPECT_EQ(client.compareConnection(nullptr), -2);
    EXPECT_EQ(client.compareConnection(&client), -2);  // no local URL yet
    client.setLocalApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_EQ(client.compareConnection(&client), 0);
    ASSERT_TRUE(server.initSink("10.0.0.2:6000", "10.0.0.1:40000"));
    server.setLocalApartmentUrl("tcp://10.0.0.2:6000");
    EXPECT_EQ(client.compareConnection(&server), -2);  // a server uses its remote URL
    server.setRemoteApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_EQ(client.compareConnection(&server), 0);
    EXPECT_EQ(server.compareConnection(&client), 0);
    ASSERT_TRUE(other.initSink("10.0.0.2:6000", "10.0.0.1:40001"));  // another peer address
    other.setRemoteApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_NE(client.compareConnection(&other), 0);
    EXPECT_NE(server.compareConnection(&other), 0);
    other.destroySink();
    ASSERT_TRUE(other.initSink("10.0.0.9:1", "10.0.0.1:40000"));
    other.setRemoteApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_EQ(server.compareConnection(&other), 0);
    CReference<IApartmentSink> sink(new RecordingSink(CLIENT_SINK));
    EXPECT_EQ(asITcpApartmentSink(sink), nullptr);
    EXPECT_EQ(asIApartmentListenSink(sink), nullptr);
}

// --------------------------------------------------------------- TCP sinks

// Waits (bounded) for a whole frame: asks for its size, then takes it.
bool receiveWhole(CTcpApartmentSink* sink, unsigned int& type, Bytes& out, long ms) {
    for (const Clock::time_point start = Clock::now(); msSince(start) < ms;) {
        OS::Socket::readable(sink->getSocketFd(), 20, nullptr, USE_DEFAULT);
        unsigned int size = 0;
        if (!sink->receiveFrame(type, nullptr, size)) continue;
        out.assign(size + 1, 0);  // never a null buffer: that only asks again
        unsigned int capacity = size;
        const bool ok = sink->receiveFrame(type, out.data(), capacity) && capacity == size;
        out.resize(size);
        return ok;
    }
    return false;
}

// Sends raw bytes through a socket, waiting (bounded) while it is full.
bool rawSendAll(CSocket& socket, const Bytes& bytes) { return sendAll(socket.getSockFd(), bytes, 5000); }

// A listen sink on 127.0.0.1 with a random port (retried, since the one
// drawn port may be taken), and links accepted through it.
class TcpSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (int attempt = 0; attempt < 10 && m_listen == nullptr; ++attempt) {
            CTcpListenSink* sink = new CTcpListenSink;
            testing::internal::CaptureStdout();
            const bool ok = sink->initSink("127.0.0.1:0", nullptr);
            testing::internal::GetCapturedStdout();
            if (ok)
                m_listen = sink;
            else
                sink->releaseRef();
        }
        ASSERT_NE(m_listen, nullptr);
        m_listenAddress = localAddressOf(m_listen);
    }
    void TearDown() override {
        for (IBase* sink : m_owned) sink->releaseRef();
        if (m_listen != nullptr) m_listen->releaseRef();
    }
    CTcpClientSink* connectClient() {
        CTcpClientSink* client = new CTcpClientSink;
        m_owned.push_back(static_cast<IApartmentSink*>(client));
        return client->initSink(nullptr, m_listenAddress.c_str()) ? client : nullptr;
    }
    CTcpServerSink* acceptServer() {
        IApartmentServerSink* accepted = m_listen->processConnectRequest(2000);
        if (accepted == nullptr) return nullptr;
        m_owned.push_back(accepted);
        return static_cast<CTcpServerSink*>(accepted);
    }
    // A client sink connected to the listen sink, and its server sink.
    bool connectPair(CTcpClientSink*& client, CTcpServerSink*& server) {
        client = connectClient();
        server = client != nullptr ? acceptServer() : nullptr;
        return server != nullptr;
    }
    // A raw socket connected to the listen sink, and its server sink.
    bool rawLink(CSocket& raw, CTcpServerSink*& server) {
        if (!raw.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT) ||
            !raw.connect("127.0.0.1", portOf(m_listenAddress)))
            return false;
        server = acceptServer();
        return server != nullptr && raw.readyToWrite(2000, nullptr);
    }

    CTcpListenSink* m_listen = nullptr;
    std::string m_listenAddress;
    std::vector<IBase*> m_owned;
};

// A server sink over one end of a local socket pair; the test holds the
// other end and can see the sink's receive buffer.
class PairedServerSink : public CTcpServerSink {
public:
    unsigned int receiveCapacity() const { return m_uintReceiveBufferSize; }
};
struct SocketPair {
    PairedServerSink* sink = new PairedServerSink;
    CSocket peer;
    explicit SocketPair(int type) {
        int fds[2] = {-1, -1};
        if (OS::Socket::socketPair(AF_UNIX, type, 0, fds, USE_DEFAULT) != 0) return;
        sink->innerSocket().attach(fds[0], USE_DEFAULT);
        peer.attach(fds[1], USE_DEFAULT);
        sink->initSink(nullptr, nullptr);
    }
    ~SocketPair() { sink->releaseRef(); }
    bool ok() const { return sink->getSocketFd() != -1 && peer.getSockFd() != -1; }
};

TEST_F(TcpSinkTest, TheHandshakeCarriesFlagAndUrlAndPairsTheEnds) {
    CTcpClientSink* client = connectClient();
    ASSERT_NE(client, nullptr);
    m_listen->setLocalApartmentUrl("tcp://127.0.0.1:6000");
    CTcpServerSink* server = acceptServer();
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->sinkType(), SERVER_SINK);
    EXPECT_FALSE(server->isSinkClosed());
    const std::string url = "tcp://127.0.0.1:5555";
    client->setLocalApartmentUrl(url.c_str());
    const Bytes hello = connectionFrame(url, true);
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, hello.data() + 8, 130));
    bool rt = false;
    ASSERT_TRUE(server->waitRemoteConnectionInfo(2000, rt));
    EXPECT_TRUE(rt);
    std::string remoteUrl, localUrl;
    ASSERT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(server, remoteUrl));
    ASSERT_TRUE(CApartmentSinkHelper::getLocalApartmentUrl(server, localUrl));
    EXPECT_EQ(remoteUrl, url);
    EXPECT_EQ(localUrl, "tcp://127.0.0.1:6000");
    EXPECT_EQ(client->compareConnection(server), 0);
    EXPECT_EQ(server->compareConnection(client), 0);
}

// What comes before and instead of the connection frame: a peer that fills
// the block's last byte too cannot make the URL longer than 128 bytes; a
// frame of another type that fits the block is skipped; a smaller one
// shrinks what the next may be, so the block is then refused; silence, half
// a header, or half a header and a close end the wait in time.
enum class Opening { LongUrl, OtherFrameFirst, SmallerFrameFirst, Silence, HalfHeader, HalfHeaderThenClose };
class Handshake : public TcpSinkTest, public ::testing::WithParamInterface<Opening> {};

TEST_P(Handshake, AcceptsOnlyAConnectionFrameInTime) {
    const Opening opening = GetParam();
    CSocket raw;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(rawLink(raw, server));
    std::string url = "tcp://" + std::string(122, '9');
    Bytes hello = connectionFrame(url, false);
    hello.back() = 'Z';
    Bytes sent;
    if (opening == Opening::OtherFrameFirst) sent = frame(APARTMENT_ALIVE_FRAME, pattern(130).data(), 130);
    if (opening == Opening::SmallerFrameFirst) sent = frame(APARTMENT_REQUEST_FRAME, pattern(20).data(), 20);
    if (opening <= Opening::SmallerFrameFirst) sent.insert(sent.end(), hello.begin(), hello.end());
    if (opening >= Opening::HalfHeader) sent.assign(hello.begin(), hello.begin() + 5);
    ASSERT_TRUE(rawSendAll(raw, sent));
    if (opening == Opening::HalfHeaderThenClose) raw.close();
    bool rt = true;
    const Clock::time_point start = Clock::now();
    const bool accepted = server->waitRemoteConnectionInfo(opening == Opening::HalfHeaderThenClose ? 5000 : 100, rt);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_EQ(accepted, opening <= Opening::OtherFrameFirst);
    if (opening == Opening::Silence) {
        EXPECT_GE(msSince(start), 80);
    }
    if (!accepted) return;
    EXPECT_FALSE(rt);
    std::string remoteUrl;
    ASSERT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(server, remoteUrl));
    EXPECT_EQ(remoteUrl, url);
}

INSTANTIATE_TEST_SUITE_P(TcpSink, Handshake,
                         ::testing::Values(Opening::LongUrl, Opening::OtherFrameFirst,
                                           Opening::SmallerFrameFirst, Opening::Silence,
                                           Opening::HalfHeader, Opening::HalfHeaderThenClose));

TEST_F(TcpSinkTest, FramesOfManySizesArriveWhole) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    // Around the read buffer's size: the largest frame it holds whole, and
    // the smallest that is read into a buffer of its own.
    const unsigned int fits = CTcpApartmentSink::READ_BUFFER_SIZE - 8;
    const std::vector<unsigned int> sizes = {0, 1, 5000, fits, fits + 1, 1u << 20, 3};
    std::atomic<int> sendFailures{0};
    std::thread sender([&] {
        for (unsigned int i = 0; i < sizes.size(); ++i)
            if (!client->sendFrame(100 + i, pattern(sizes[i], i).data(), sizes[i])) ++sendFailures;
    });
    for (unsigned int i = 0; i < sizes.size(); ++i) {
        unsigned int type = 0;
        Bytes received;
        ASSERT_TRUE(receiveWhole(server, type, received, 5000)) << "frame " << i;
        EXPECT_EQ(type, 100 + i);
        EXPECT_EQ(received, pattern(sizes[i], i)) << "frame " << i;
    }
    sender.join();
    EXPECT_EQ(sendFailures, 0);
}

// A size query reports the frame and keeps it, as often as asked; a buffer
// that is too small fails and keeps it; a large enough one takes it.
TEST_F(TcpSinkTest, ASizeQueryAndATooSmallBufferKeepTheFrame) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    const Bytes payload = pattern(300, 5);
    ASSERT_TRUE(client->sendFrame(2, payload.data(), 300));
    unsigned int type = 0, size = 0;
    for (const Clock::time_point start = Clock::now();
         !server->receiveFrame(type, nullptr, size) && msSince(start) < 2000;)
        server->innerSocket().readyToRead(20, nullptr);
    ASSERT_EQ(size, 300u);
    EXPECT_EQ(type, 2u);
    size = 0;
    ASSERT_TRUE(server->receiveFrame(type, nullptr, size));
    EXPECT_EQ(size, 300u);
    Bytes buffer(300, 0);
    unsigned int capacity = 299;
    EXPECT_FALSE(server->receiveFrame(type, buffer.data(), capacity));
    EXPECT_EQ(capacity, 299u);
    capacity = 300;
    ASSERT_TRUE(server->receiveFrame(type, buffer.data(), capacity));
    EXPECT_EQ(buffer, payload);
    size = 0;
    EXPECT_FALSE(server->receiveFrame(type, nullptr, size));  // nothing more
}

TEST(TcpSinkWrites, EachFrameGoesOutInOneWrite) {
    SocketPair pair(SOCK_SEQPACKET);  // keeps the boundary of every write
    ASSERT_TRUE(pair.ok());
    auto recordsFor = [&](const Bytes& head, const Bytes& tail) {
        std::vector<Bytes> records;
        if (!pair.sink->sendFrameParts(9, head.empty() ? nullptr : head.data(),
                                       static_cast<unsigned int>(head.size()),
                                       tail.empty() ? nullptr : tail.data(),
                                       static_cast<unsigned int>(tail.size())))
            return records;
        Bytes record(8192);
        int n;
        while ((n = pair.peer.receive(record.data(), static_cast<int>(record.size()), MSG_DONTWAIT)) > 0)
            records.emplace_back(record.begin(), record.begin() + n);
        return records;
    };
    auto frameOf = [](const Bytes& head, const Bytes& tail) {
        Bytes bytes = frameHeader(9, static_cast<unsigned int>(head.size() + tail.size()));
        bytes.insert(bytes.end(), head.begin(), head.end());
        bytes.insert(bytes.end(), tail.begin(), tail.end());
        return std::vector<Bytes>{bytes};
    };
    for (unsigned int size : {0u, 1016u, 1017u, 3000u})
        EXPECT_EQ(recordsFor(pattern(size, 1), Bytes()), frameOf(pattern(size, 1), Bytes())) << size;
    // The fields and the caller's data, joined on the wire only.
    EXPECT_EQ(recordsFor(pattern(40, 2), pattern(5000, 3)), frameOf(pattern(40, 2), pattern(5000, 3)));
}

// The transport cuts and joins the byte stream anywhere; each cut below
// becomes one read. Frames must come out whole and in order, whether a read
// ends inside a header, exactly after one, or inside a payload that is too
// large for the read buffer; and the bytes of a header in pieces leave the
// socket as they come (left there, they would pin the socket buffer).
TEST(TcpSinkBuffers, FramesCutAnywhereByTheTransportArriveWholeAndInOrder) {
    const unsigned int large = CTcpApartmentSink::READ_BUFFER_SIZE + 1000;
    const std::vector<unsigned int> sizes = {3, 0, 70, large, 5, 1, 200};
    Bytes stream;
    std::vector<size_t> headerEnds;
    for (unsigned int i = 0; i < sizes.size(); ++i) {
        const Bytes head = frameHeader(i, sizes[i]), body = pattern(sizes[i], i);
        stream.insert(stream.end(), head.begin(), head.end());
        headerEnds.push_back(stream.size());
        stream.insert(stream.end(), body.begin(), body.end());
    }
    std::vector<std::vector<size_t>> cuttings = {
        {},                                   // as much as fits at once
        headerEnds,                           // every read ends with a header
        {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},  // byte by byte at first
        {headerEnds[3] - 1, headerEnds[3] + 10, headerEnds[3] + 70000, stream.size() - 3},
    };
    std::vector<size_t> random;
    for (size_t at = 0, step = 7; at < stream.size(); step = step * 5 % 997 + 1) random.push_back(at += step);
    cuttings.push_back(random);
    for (size_t c = 0; c < cuttings.size(); ++c) {
        SCOPED_TRACE("cutting " + std::to_string(c));
        SocketPair pair(SOCK_STREAM);
        ASSERT_TRUE(pair.ok());
        const int room = 200000;
        pair.peer.setSockopt(SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        // Pieces of at most 50000 bytes, so that each fits the socket pair.
        std::vector<size_t> cuts;
        size_t last = 0;
        cuttings[c].push_back(stream.size());
        for (size_t cut : cuttings[c]) {
            cut = std::min(cut, stream.size());
            while (cut > last + 50000) cuts.push_back(last += 50000);
            if (cut > last) cuts.push_back(last = cut);
        }
        size_t sent = 0, next = 0;
        for (size_t cut : cuts) {
            ASSERT_TRUE(rawSendAll(pair.peer, Bytes(stream.begin() + sent, stream.begin() + cut)));
            sent = cut;
            // A read takes what the piece brought; every whole frame is then
            // taken, until nothing more is waiting.
            do {
                unsigned int type = 0, size = 0;
                char* payload = nullptr;
                while (pair.sink->nextFrame(type, payload, size) == CTcpApartmentSink::FRAME_READY) {
                    ASSERT_LT(next, sizes.size());
                    EXPECT_EQ(type, next);
                    EXPECT_EQ(Bytes(payload, payload + size), pattern(sizes[next], next));
                    pair.sink->consumeFrame();
                    ++next;
                }
            } while (pair.sink->readAvailable() == CTcpApartmentSink::READ_DATA);
            char peek[8];
            EXPECT_EQ(pair.sink->innerSocket().receive(peek, sizeof peek, MSG_PEEK | MSG_DONTWAIT), -1)
                << "bytes were left in the socket";
        }
        EXPECT_EQ(next, sizes.size());
        // Nothing but the read buffer stays held by an idle link.
        EXPECT_EQ(pair.sink->receiveCapacity(), CTcpApartmentSink::READ_BUFFER_SIZE);
        EXPECT_FALSE(pair.sink->hasFrameReady());
    }
}

TEST(TcpSinkBuffers, AHeaderAboveTheMaximumIsRefusedBeforeAnythingIsAllocated) {
    SocketPair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok());
    pair.sink->setMaxFrameSize(1000);
    ASSERT_TRUE(rawSendAll(pair.peer, frameHeader(1, 1000)));  // at the maximum: fine
    ASSERT_TRUE(rawSendAll(pair.peer, pattern(1000, 1)));
    ASSERT_TRUE(rawSendAll(pair.peer, frameHeader(1, 0x7FFFFFF0)));
    ASSERT_EQ(pair.sink->readAvailable(), CTcpApartmentSink::READ_DATA);
    unsigned int type = 0, size = 0;
    char* payload = nullptr;
    ASSERT_EQ(pair.sink->nextFrame(type, payload, size), CTcpApartmentSink::FRAME_READY);
    EXPECT_EQ(size, 1000u);
    pair.sink->consumeFrame();
    EXPECT_TRUE(pair.sink->hasFrameReady());  // to be refused at once
    EXPECT_EQ(pair.sink->nextFrame(type, payload, size), CTcpApartmentSink::FRAME_TOO_LARGE);
    EXPECT_EQ(size, 0x7FFFFFF0u);
    EXPECT_EQ(pair.sink->receiveCapacity(), CTcpApartmentSink::READ_BUFFER_SIZE);
    // A real-time link keeps its own limit whatever the maximum is.
    SocketPair rt(SOCK_STREAM);
    ASSERT_TRUE(rt.ok());
    rt.sink->setRTConnection(true);
    ASSERT_TRUE(rawSendAll(rt.peer, frameHeader(7, CTcpApartmentSink::RT_MAX_FRAME_SIZE + 1)));
    ASSERT_EQ(rt.sink->readAvailable(), CTcpApartmentSink::READ_DATA);
    EXPECT_EQ(rt.sink->nextFrame(type, payload, size), CTcpApartmentSink::FRAME_TOO_LARGE);
    // And a local write above a link's maximum fails before a byte leaves.
    const Bytes big = pattern(CTcpApartmentSink::RT_MAX_FRAME_SIZE + 1, 1);
    EXPECT_FALSE(rt.sink->sendFrame(7, big.data(), static_cast<unsigned int>(big.size())));
    EXPECT_FALSE(pair.sink->sendFrame(1, big.data(), 1001));
    char peek;
    EXPECT_EQ(rt.peer.receive(&peek, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(pair.peer.receive(&peek, 1, MSG_DONTWAIT), -1);
    EXPECT_FALSE(pair.sink->isExpectSinkClosed());
}

// A link is held at its bound (or at the total's) and taken up again only
// once what held it is down to half: rows of bytes queued, why it is held,
// and whether it may be read again.
TEST(QueueBudget, HoldsAtTheBoundAndResumesAtHalf) {
    const size_t perLink = 1000, total = 3000;
    struct Row {
        size_t link, other;  // bytes of this link and of another one
        int reasons;         // holdReasons()
        bool resumes;        // mayResume(reasons), once held
    } rows[] = {
        {999, 0, 0, true},
        {1000, 0, CLinkBacklog::HELD_FOR_LINK, false},
        {501, 0, 0, true},  // not held: under the bound
        {500, 2499, 0, true},
        {500, 2500, CLinkBacklog::HELD_FOR_TOTAL, false},
        {0, 3000, CLinkBacklog::HELD_FOR_TOTAL, false},
    };
    for (const Row& row : rows) {
        auto budget = std::make_shared<CQueueBudget>(perLink, total);
        CLinkBacklog link(budget), other(budget);
        link.charge(row.link);
        other.charge(row.other);
        EXPECT_EQ(link.holdReasons(), row.reasons) << row.link << " " << row.other;
        EXPECT_EQ(link.mayResume(row.reasons), row.resumes) << row.link << " " << row.other;
    }
    // Held for its own bytes: down to half resumes it, and a discharge
    // that gets there while a link is held asks for a wake-up.
    auto budget = std::make_shared<CQueueBudget>(perLink, total);
    CLinkBacklog link(budget);
    link.charge(1000);
    ++budget->m_heldLinks;
    link.discharge(499);
    EXPECT_FALSE(link.mayResume(CLinkBacklog::HELD_FOR_LINK));
    budget->takeResumeWanted();  // the total is low already: a wake-up too many costs nothing
    link.discharge(1);
    EXPECT_TRUE(link.mayResume(CLinkBacklog::HELD_FOR_LINK));
    EXPECT_TRUE(budget->takeResumeWanted());
    EXPECT_FALSE(budget->takeResumeWanted());
    link.discharge(500);
    EXPECT_EQ(budget->queued(), 0u);
}

// One pass of a communication thread takes at most MAX_FRAMES_PER_PASS
// frames from a link, so that a flooding link cannot starve the others;
// the next passes serve the rest at once, without waiting on the socket,
// where nothing more will come.
TEST(TcpApartment, APassTakesABoundedShareOfALinkAndTheNextOnesTheRestAtOnce) {
    struct Probe : CTcpApartment {
        using CTcpApartment::serveLinks;
        using CTcpApartment::unwatchLink;
        using CTcpApartment::watchLink;
    };
    CReference<Probe> apartment(new Probe);
    SocketPair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok());
    constexpr unsigned int frames = 2 * CTcpApartment::MAX_FRAMES_PER_PASS + 7;
    Bytes burst;
    for (unsigned int i = 0; i < frames; ++i) {
        const Bytes one = frame(99, pattern(100, i).data(), 100);
        burst.insert(burst.end(), one.begin(), one.end());
    }
    ASSERT_TRUE(rawSendAll(pair.peer, burst));
    ASSERT_TRUE(apartment->watchLink(pair.sink, false));
    for (unsigned int left = frames; left > 0;) {
        const Clock::time_point start = Clock::now();
        apartment->serveLinks(2000, false);
        EXPECT_LT(msSince(start), 1000);
        unsigned int taken = 0;
        for (APARTMENT_TMSG msg; apartment->getMessage(msg, deadlineIn(0)); ++taken)
            apartment->dispatchMessage(msg);
        const unsigned int share = CTcpApartment::MAX_FRAMES_PER_PASS;
        ASSERT_EQ(taken, std::min(left, share));
        left -= taken;
    }
    apartment->unwatchLink(pair.sink);
}

TEST_F(TcpSinkTest, AListenSinkCarriesNoFrames) {
    EXPECT_EQ(m_listen->sinkType(), LISTEN_SINK);
    const char byte = 1;
    EXPECT_FALSE(m_listen->sendFrame(1, &byte, 1));
    unsigned int type = 0, size = 0;
    EXPECT_FALSE(m_listen->receiveFrame(type, nullptr, size));
}

class FixedPortListenSink : public CTcpListenSink {
public:
    explicit FixedPortListenSink(unsigned short port) : m_port(port) {}
    unsigned short randomPort() override {
        ++draws;
        return m_port;
    }
    int draws = 0;

private:
    unsigned short m_port;
};

// Port 0 draws one port from 10000..50000; a drawn port that is taken
// fails the sink without a second draw.
TEST(TcpListenSink, ARandomPortIsDrawnOnceFromItsRange) {
    CReference<CTcpListenSink> holder(new CTcpListenSink);
    std::set<unsigned short> seen;
    for (int i = 0; i < 2000; ++i) {
        const unsigned short port = holder->randomPort();
        ASSERT_GE(port, 10000);
        ASSERT_LE(port, 50000);
        seen.insert(port);
    }
    EXPECT_GT(seen.size(), 1000u);
    unsigned short port = 0;
    const int taken = bindAnyPort(port, 1);
    ASSERT_GE(taken, 0);
    CReference<FixedPortListenSink> sink(new FixedPortListenSink(port));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(sink->initSink("127.0.0.1:0", nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Bind failed, error code: " + std::to_string(EADDRINUSE) + "\n");
    EXPECT_EQ(sink->draws, 1);
    EXPECT_EQ(sink->getSocketFd(), -1);
    os_socket_close(taken, USE_DEFAULT);
    ASSERT_TRUE(sink->initSink("127.0.0.1:0", nullptr));
    EXPECT_EQ(localAddressOf(sink), "127.0.0.1:" + std::to_string(port));
}

// A connect that meets itself (a port nobody listens on, taken as the
// link's own) links to no apartment: refused like a connect nobody takes.
TEST(TcpClientSink, AConnectThatMeetsItselfIsRefused) {
    const std::string address = "127.0.0.1:" + std::to_string(freePort());
    CReference<CTcpClientSink> client(new CTcpClientSink);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(client->initSink(address.c_str(), address.c_str()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[TcpApartment Error]: Can not connected to " + address + "\n");
    EXPECT_TRUE(client->isSinkClosed());
}

TEST_F(TcpSinkTest, TheLocalUrlNamesTheLinksConcreteAddress) {
    CTcpClientSink* client = connectClient();
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(localAddressOf(client).rfind("127.0.0.1:", 0), 0u) << localAddressOf(client);
    m_listen->setLocalApartmentUrl("tcp://0.0.0.0:7000");
    CTcpServerSink* server = acceptServer();
    ASSERT_NE(server, nullptr);
    std::string url;
    CApartmentSinkHelper::getLocalApartmentUrl(server, url);
    EXPECT_EQ(url, "tcp://127.0.0.1:7000");
    client->setLocalApartmentUrl("tcp://0.0.0.0:1/tcp://0.0.0.0:2");
    CApartmentSinkHelper::getLocalApartmentUrl(client, url);
    EXPECT_EQ(url, "tcp://127.0.0.1:1/tcp://127.0.0.1:2");
    client->setLocalApartmentUrl("tcp://10.0.0.1:1");
    CApartmentSinkHelper::getLocalApartmentUrl(client, url);
    EXPECT_EQ(url, "tcp://10.0.0.1:1");
}

// A link's writes either synchronous (0) or through a send queue of that
// many bytes, flushed by a thread of its own as a communication thread
// would when the socket has room.
class TcpSinkSendModes : public TcpSinkTest, public ::testing::WithParamInterface<unsigned int> {
protected:
    void TearDown() override {
        m_stop = true;
        if (m_flusher.joinable()) m_flusher.join();
        if (m_queued != nullptr) m_queued->setSendQueuePoller(nullptr), m_poller.unwatch(m_queued);
        TcpSinkTest::TearDown();
    }
    void useSendQueue(CTcpClientSink* client, unsigned int bytes) {
        if (bytes == 0) return;
        m_queued = client;
        ASSERT_TRUE(m_poller.watch(client, client->getSocketFd()));
        client->enableSendQueue(bytes, &m_poller);
        m_flusher = std::thread([this] {
            std::vector<CLinkPoller::Link> ready;
            while (!m_stop) {
                m_poller.wait(20, ready);
                for (const CLinkPoller::Link& link : ready) {
                    if (link.events & OS_POLLER_WRITE) m_queued->flushSendQueue();
                    link.sink->releaseRef();
                }
                ready.clear();
            }
        });
    }
    CLinkPoller m_poller;
    CTcpClientSink* m_queued = nullptr;
    std::thread m_flusher;
    std::atomic<bool> m_stop{false};
};
INSTANTIATE_TEST_SUITE_P(Writes, TcpSinkSendModes, ::testing::Values(0u, 16384u));

// Writers of one link are coalesced into shared writes (or one queue):
// their bytes must never interleave, and each writer must get its own
// frame's result (here every tenth frame is above the link's maximum and
// must fail alone).
TEST_P(TcpSinkSendModes, ConcurrentSendersNeverInterleaveFramesAndEachGetsItsOwnResult) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    client->setMaxFrameSize(4000);
    useSendQueue(client, GetParam());
    constexpr int kThreads = 8, kFrames = 200;
    const unsigned int sizes[] = {10, 700, 1500, 3999, 0};
    auto sizeOf = [&](int t, int i) { return i % 10 == 9 ? 4001u : sizes[(i + t) % 5]; };
    std::atomic<int> wrongResults{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kFrames; ++i) {
                const unsigned int size = sizeOf(t, i);
                // Self-describing: the type names the sender and sequence.
                const unsigned int type = static_cast<unsigned int>(t * 1000 + i);
                if (client->sendFrame(type, pattern(size, type).data(), size) != (size <= 4000))
                    ++wrongResults;
            }
        });
    }
    std::vector<int> next(kThreads, 0);
    const int expected = kThreads * (kFrames - kFrames / 10);
    int received = 0;
    for (; received < expected; ++received) {
        unsigned int type = 0;
        Bytes payload;
        if (!receiveWhole(server, type, payload, 10000)) break;
        const int t = static_cast<int>(type / 1000), i = static_cast<int>(type % 1000);
        ASSERT_LT(t, kThreads);
        if (next[t] % 10 == 9) ++next[t];  // the refused frame never went
        EXPECT_EQ(i, next[t]) << "sender " << t;  // each sender's frames in order
        next[t] = i + 1;
        ASSERT_EQ(payload, pattern(sizeOf(t, i), type)) << "sender " << t << " frame " << i;
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(received, expected);
    EXPECT_EQ(wrongResults, 0);
}

// A full queue holds its writer back instead of growing: against a peer
// that never reads, the writer waits for room, then fails by the stall
// rule and condemns the link; closing it counts the frames left.
TEST_F(TcpSinkTest, AFullSendQueueHoldsItsWriterAndItsCloseCountsWhatWasLeft) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;  // never reads
    ASSERT_TRUE(connectPair(client, server));
    constexpr unsigned int kBound = 65536, kFrame = 4000 + 8;
    client->enableSendQueue(kBound, nullptr);
    const Bytes payload(4000, 0x33);
    std::atomic<bool> done{false};
    std::atomic<int> sent{0};
    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    std::thread writer([&] {
        // The socket buffers take a few MiB first; far fewer than this.
        for (int i = 0; i < 20000 && client->sendFrame(1, payload.data(), 4000); ++i) ++sent;
        done = true;
    });
    size_t most = 0;
    while (!done) most = std::max(most, client->sendQueueBytes());
    writer.join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TcpApartmentSink write failed.\n");
    EXPECT_LT(msSince(start), 5000);
    EXPECT_LT(sent, 20000);
    EXPECT_LE(most, kBound);
    EXPECT_GT(most, kBound - kFrame);  // it did fill up
    EXPECT_TRUE(client->isExpectSinkClosed());
    const size_t left = (client->sendQueueBytes() + kFrame - 1) / kFrame;
    testing::internal::CaptureStdout();
    client->closeSink();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("[TcpApartment Warning]: link to ", 0), 0u) << out;
    EXPECT_NE(out.find(" closed with " + std::to_string(left) + " frames still queued; not sent.\n"),
              std::string::npos) << out;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
}

// A link held back from reading (back-pressure) is still reported when its
// send queue waits for room, and only for that.
TEST_F(TcpSinkTest, APausedLinkIsStillReportedForRoomToWrite) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    const char byte = 1;
    ASSERT_TRUE(server->sendFrame(1, &byte, 1));  // something to read
    CLinkPoller poller;
    ASSERT_TRUE(poller.watch(client, client->getSocketFd()));
    auto events = [&] {
        std::vector<CLinkPoller::Link> ready;
        poller.wait(200, ready);
        uint32_t seen = 0;
        for (const CLinkPoller::Link& link : ready) {
            seen |= link.events;
            link.sink->releaseRef();
        }
        return seen & (OS_POLLER_READ | OS_POLLER_WRITE);
    };
    ASSERT_TRUE(poller.pause(1));  // the first key
    ASSERT_TRUE(poller.wantWrite(client, true));
    EXPECT_EQ(events(), OS_POLLER_WRITE);
    ASSERT_TRUE(poller.resume(1));
    EXPECT_EQ(events(), OS_POLLER_READ | OS_POLLER_WRITE);
    ASSERT_TRUE(poller.wantWrite(client, false));
    EXPECT_EQ(events(), OS_POLLER_READ);
    poller.unwatch(client);
}

TEST_F(TcpSinkTest, AStalledPeerEndsALargeSendAndCondemnsTheLink) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;  // never reads
    ASSERT_TRUE(connectPair(client, server));
    const Bytes payload(16u << 20, 0x5a);
    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(client->sendFrame(1, payload.data(), static_cast<unsigned int>(payload.size())));
    EXPECT_LT(msSince(start), 5000);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TcpApartmentSink write failed.\n");
    EXPECT_TRUE(client->isExpectSinkClosed());
    // Part of a frame is on the wire: nothing may follow it.
    const char byte = 1;
    EXPECT_FALSE(client->sendFrame(1, &byte, 1));
}

TEST_F(TcpSinkTest, ClosingASinkReleasesABlockedSender) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    // The peer drains at a modest pace, so the sender keeps making progress
    // and would stay in sendFrame for seconds.
    std::atomic<bool> stop{false}, result{true};
    std::thread drain([&] {
        std::vector<char> chunk(65536);
        for (; !stop; sleepMs(2)) server->innerSocket().receive(chunk.data(), 65536, 0);
    });
    std::thread sender([&] {
        const Bytes payload(32u << 20, 1);
        testing::internal::CaptureStdout();
        result = client->sendFrame(1, payload.data(), static_cast<unsigned int>(payload.size()));
        testing::internal::GetCapturedStdout();
    });
    sleepMs(50);
    const Clock::time_point start = Clock::now();
    client->closeSink();
    sender.join();
    EXPECT_LT(msSince(start), 2000);
    stop = true;
    drain.join();
    EXPECT_FALSE(result);
    EXPECT_TRUE(client->isSinkClosed());
    EXPECT_EQ(client->getSocketFd(), -1);
}

// --------------------------------------------------------------------- TLS

// A context for the certificate `name` ("" for none) trusting `ca`.
std::shared_ptr<CTlsContext> tlsContext(const std::string& name, const std::string& ca = "ca",
                                        const std::string& keyLog = "") {
    const std::string d = certDir();
    std::string error;
    auto context = CTlsContext::create({name.empty() ? "" : d + name + ".pem",
                                        name.empty() ? "" : d + name + ".key", d + ca + ".pem", keyLog},
                                       error);
    EXPECT_TRUE(context) << error;
    return context;
}

// Two connected non-blocking TCP sockets on 127.0.0.1 with small buffers,
// so that a large write takes many rounds.
struct TcpPair {
    int client = -1, server = -1;
    TcpPair() {
        unsigned short port = 0;
        const int listener = bindAnyPort(port, 1);
        client = listener >= 0 ? rawConnect(port) : -1;
        server = client >= 0 ? os_socket_accept(listener, nullptr, nullptr, USE_DEFAULT) : -1;
        os_socket_close(listener, USE_DEFAULT);
        for (int fd : {client, server}) {
            unsigned long on = 1;
            const int room = 32768;
            os_socket_ioctl(fd, FIONBIO, &on, USE_DEFAULT);
            os_socket_set_sock_opt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room, USE_DEFAULT);
            os_socket_set_sock_opt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room, USE_DEFAULT);
        }
    }
    ~TcpPair() {
        for (int fd : {client, server})
            if (fd >= 0) os_socket_close(fd, USE_DEFAULT);
    }
};

// Steps both handshakes as their sockets allow (the client may be absent)
// until neither wants more, for at most 3 s.
void handshake(CTlsSession* client, int clientFd, CTlsSession& server, int serverFd,
               CTlsSession::HANDSHAKE& clientState, CTlsSession::HANDSHAKE& serverState) {
    auto busy = [](CTlsSession::HANDSHAKE h) { return h == CTlsSession::WANT_READ || h == CTlsSession::WANT_WRITE; };
    clientState = client != nullptr ? CTlsSession::WANT_WRITE : CTlsSession::DONE;
    serverState = CTlsSession::WANT_READ;
    for (const long long until = nowMs() + 3000; nowMs() < until;) {
        if (busy(clientState)) clientState = client->handshakeStep();
        if (busy(serverState)) serverState = server.handshakeStep();
        auto entry = [&](int fd, CTlsSession::HANDSHAKE h) {
            return pollfd{busy(h) ? fd : -1, static_cast<short>(h == CTlsSession::WANT_WRITE ? POLLOUT : POLLIN), 0};
        };
        pollfd p[2] = {entry(clientFd, clientState), entry(serverFd, serverState)};
        if (p[0].fd < 0 && p[1].fd < 0) return;
        poll(p, 2, 100);
    }
}

// Writes all of `parts` for at most 10 s, consuming them as the session
// reports; the rounds that found the socket full in `waits`.
bool writeAll(CTlsSession& session, int fd, std::vector<iovec> parts, int* waits = nullptr) {
    size_t next = 0;
    for (const long long until = nowMs() + 10000; next < parts.size();) {
        const long n = session.writev(parts.data() + next, static_cast<int>(parts.size() - next));
        pollfd p{fd, POLLOUT, 0};
        if (n < 0 && (errno != EAGAIN || nowMs() > until || poll(&p, 1, 100) < 0)) return false;
        if (n < 0 && waits != nullptr) ++*waits;
        for (size_t step = n < 0 ? 0 : static_cast<size_t>(n); step > 0 || (next < parts.size() && parts[next].iov_len == 0);) {
            const size_t taken = std::min(step, parts[next].iov_len);
            parts[next].iov_base = static_cast<char*>(parts[next].iov_base) + taken;
            parts[next].iov_len -= taken;
            step -= taken;
            if (parts[next].iov_len == 0) ++next;
        }
    }
    return true;
}

// Reads as the communication thread does, a piece per wake-up, waiting on
// the socket only when nothing is pending inside, until `size` bytes came
// or 10 s passed. A read that ends it leaves 0 (closed) or its errno in
// `ended`.
Bytes readAll(CTlsSession& session, int fd, size_t size, int* ended = nullptr) {
    Bytes in;
    unsigned char piece[5000];  // less than a record: the rest stays inside
    for (const long long until = nowMs() + 10000; in.size() < size && nowMs() < until;) {
        const int n = session.read(piece, std::min(sizeof piece, size - in.size()));
        if (n > 0) in.insert(in.end(), piece, piece + n);
        if (n == 0 || (n < 0 && errno != EAGAIN)) {
            if (ended != nullptr) *ended = n == 0 ? 0 : errno;
            break;
        }
        pollfd p{fd, POLLIN, 0};
        if (in.size() < size && !session.hasPending())
            poll(&p, 1, static_cast<int>(std::max(0LL, until - nowMs())));
    }
    return in;
}

// A frame of a large payload between small parts (in place and gathered
// into records), echoed back by the server while the client reads the echo
// on a thread of its own as its main thread still writes.
TEST(TlsSession, MutualAuthenticationCarriesDataBothWays) {
    if (!CTlsContext::available()) GTEST_SKIP() << "built without OpenSSL";
    const std::string keyLog = certDir() + "keys.log";
    auto clientContext = tlsContext("a", "ca", keyLog), serverContext = tlsContext("b");
    ASSERT_TRUE(clientContext && serverContext);
    TcpPair pair;
    CTlsSession client(clientContext, pair.client, CTlsSession::CLIENT);
    CTlsSession server(serverContext, pair.server, CTlsSession::SERVER);
    CTlsSession::HANDSHAKE clientState, serverState;
    handshake(&client, pair.client, server, pair.server, clientState, serverState);
    ASSERT_EQ(clientState, CTlsSession::DONE) << client.failureReason();
    ASSERT_EQ(serverState, CTlsSession::DONE) << server.failureReason();
    EXPECT_EQ(client.peerSubject(), "/CN=apartment b");
    EXPECT_EQ(server.peerSubject(), "/CN=apartment a");
    std::ifstream log(keyLog);
    const std::string keys((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(keys.find("CLIENT_TRAFFIC_SECRET_0 "), std::string::npos) << keys;

    const Bytes header = pattern(8, 1), payload = pattern(1u << 20, 2), small = pattern(3000, 3);
    std::vector<iovec> parts = {{const_cast<unsigned char*>(header.data()), header.size()},
                                {const_cast<unsigned char*>(payload.data()), payload.size()}};
    for (int i = 0; i < 64; ++i) parts.push_back({const_cast<unsigned char*>(small.data()), small.size()});
    Bytes sent;
    for (const iovec& part : parts)
        sent.insert(sent.end(), static_cast<unsigned char*>(part.iov_base),
                    static_cast<unsigned char*>(part.iov_base) + part.iov_len);

    std::thread echo([&] {
        for (size_t done = 0; done < sent.size();) {
            const Bytes in = readAll(server, pair.server, std::min<size_t>(50000, sent.size() - done));
            if (in.empty() || !writeAll(server, pair.server, {{const_cast<unsigned char*>(in.data()), in.size()}})) return;
            done += in.size();
        }
    });
    Bytes echoed;
    std::thread reader([&] { echoed = readAll(client, pair.client, sent.size()); });
    int waits = 0;
    EXPECT_TRUE(writeAll(client, pair.client, parts, &waits));
    reader.join();
    echo.join();
    EXPECT_GT(waits, 5);  // the retries of a write OpenSSL left pending were exercised
    EXPECT_TRUE(echoed == sent) << echoed.size() << " of " << sent.size() << " bytes came back";
    // An orderly end reads as 0 on the other side.
    client.shutdown();
    int ended = -1;
    readAll(server, pair.server, 1, &ended);
    EXPECT_EQ(ended, 0);
}

// Each refusal fails the server's handshake with a line that says why.
TEST(TlsSession, TheServerRefusesAPeerItCannotAuthenticate) {
    if (!CTlsContext::available()) GTEST_SKIP() << "built without OpenSSL";
    struct Row {
        const char* what;
        const char* cert;  // "" no certificate, nullptr not TLS at all
        const char* reason;
    } rows[] = {
        {"no certificate", "", "peer presented no certificate"},
        {"another CA", "other", "certificate verify failed: unable to get local issuer certificate"},
        {"expired", "expired", "certificate verify failed: certificate has expired"},
        {"plaintext", nullptr, "peer does not speak TLS"},
    };
    auto serverContext = tlsContext("b");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TcpPair pair;
        std::unique_ptr<CTlsSession> client;
        if (row.cert != nullptr) client.reset(new CTlsSession(tlsContext(row.cert), pair.client, CTlsSession::CLIENT));
        else ASSERT_TRUE(sendAll(pair.client, frameHeader(APARTMENT_CONNECTION_FRAME, 130)));
        CTlsSession server(serverContext, pair.server, CTlsSession::SERVER);
        CTlsSession::HANDSHAKE clientState, serverState;
        handshake(client.get(), pair.client, server, pair.server, clientState, serverState);
        EXPECT_EQ(serverState, CTlsSession::FAILED);
        EXPECT_EQ(server.failureReason(), row.reason);
        EXPECT_EQ(server.peerSubject(), "");
        // TLS 1.3 lets the client finish first: it learns of the refusal
        // from its first read.
        if (client && clientState == CTlsSession::DONE) {
            int ended = -1;
            EXPECT_TRUE(readAll(*client, pair.client, 1, &ended).empty());
            EXPECT_GT(ended, 0);  // an errno: a failure, not an orderly end
            EXPECT_EQ(client->failureReason().rfind("peer refused: ", 0), 0u) << client->failureReason();
        }
    }
}

// TLS is off, on, or refused with one line, as the environment says.
TEST(TlsContext, TheEnvironmentTurnsTlsOnOrSaysWhyNot) {
    const std::string d = certDir();
    struct Row {
        const char *cert, *key, *ca;
        bool made;
        const char* error;  // a part of the message; "" none
    } rows[] = {
        {nullptr, nullptr, nullptr, false, ""},
        {"a.pem", nullptr, "ca.pem", false, "missing: APARTMENT_TLS_KEY"},
        {"a.pem", "a.key", "absent.pem", false, "APARTMENT_TLS_CA: cannot read "},
        {"a.pem", "b.key", "ca.pem", false, "does not match the certificate"},
        {"ca.key", "a.key", "ca.pem", false, "APARTMENT_TLS_CERT: no PEM certificate"},
        {"a.pem", "a.key", "ca.pem", true, ""},
    };
    for (const Row& row : rows) {
        const char* names[] = {"APARTMENT_TLS_CERT", "APARTMENT_TLS_KEY", "APARTMENT_TLS_CA"};
        const char* files[] = {row.cert, row.key, row.ca};
        for (int i = 0; i < 3; ++i)
            if (files[i] != nullptr) setenv(names[i], (d + files[i]).c_str(), 1);
            else unsetenv(names[i]);
        std::string error = "stale";
        const bool made = CTlsContext::fromEnvironment(error) != nullptr;
        SCOPED_TRACE(error);
        if (!CTlsContext::available()) {
            EXPECT_FALSE(made);
            EXPECT_EQ(error.empty(), row.cert == nullptr);
            continue;
        }
        EXPECT_EQ(made, row.made);
        EXPECT_NE(error.find(row.error), std::string::npos);
        EXPECT_EQ(error.empty(), *row.error == '\0');
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
    for (const char* name : {"APARTMENT_TLS_CERT", "APARTMENT_TLS_KEY", "APARTMENT_TLS_CA"}) unsetenv(name);
}

}  // namespace
