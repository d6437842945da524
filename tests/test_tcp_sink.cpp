#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ApartmentFrameCodec.h"
#include "FieldKit/Environment/EndianType.h"
#include "GroundKit/Reference/Reference.h"
#include "TcpApartmentSink.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

long elapsedMs(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Payload whose every byte depends on (tag, index), so a misplaced byte shows.
Bytes pattern(unsigned int size, unsigned int tag) {
    Bytes bytes(size);
    for (unsigned int i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 31 + tag);
    return bytes;
}

Bytes header(unsigned int type, unsigned int size) {
    unsigned int fields[2] = {type, size};
    CEndianType::hostToNetwork(fields[0]);
    CEndianType::hostToNetwork(fields[1]);
    Bytes bytes(8);
    std::memcpy(bytes.data(), fields, 8);
    return bytes;
}

// The 130-byte block a connecting apartment sends first.
Bytes connectionBlock(bool rt, const std::string& url) {
    Bytes block(APARTMENT_CONNECTION_BLOCK_SIZE, 0);
    block[0] = rt ? 1 : 0;
    std::strncpy(reinterpret_cast<char*>(block.data()) + 1, url.c_str(), 128);
    return block;
}

std::string localAddressOf(IApartmentSink* sink) {
    std::string out;
    CApartmentSinkHelper::getLocalAddress(sink, out);
    return out;
}

unsigned short portOf(const std::string& address) {
    std::string ip;
    unsigned short port = 0;
    CTcpApartmentSink::resolveSinkAddress(address, ip, port);
    return port;
}

// Waits (bounded) for a whole frame: asks for its size, then takes it.
bool receiveWhole(CTcpApartmentSink* sink, unsigned int& type, Bytes& out, long timeoutMs) {
    const Clock::time_point start = Clock::now();
    while (elapsedMs(start) < timeoutMs) {
        OS::Socket::readable(sink->getSocketFd(), 20, nullptr, USE_DEFAULT);
        unsigned int size = 0;
        if (!sink->receiveFrame(type, nullptr, size)) continue;
        out.assign(size, 0);
        // An empty frame is taken with any non-null buffer: a null one would
        // only ask for its size again.
        unsigned char none = 0;
        void* target = size == 0 ? static_cast<void*>(&none) : out.data();
        unsigned int capacity = size;
        return sink->receiveFrame(type, target, capacity) && capacity == size;
    }
    return false;
}

// Sends raw bytes through a socket, waiting (bounded) while it is full.
bool rawSendAll(CSocket& socket, const Bytes& bytes) {
    size_t sent = 0;
    const Clock::time_point start = Clock::now();
    while (sent < bytes.size() && elapsedMs(start) < 5000) {
        const int n = socket.send(bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0);
        if (n > 0)
            sent += static_cast<size_t>(n);
        else
            socket.readyToWrite(50, nullptr);
    }
    return sent == bytes.size();
}

// A listen sink on 127.0.0.1 with a random port (retried, since the one
// drawn port may be taken), and links accepted through it.
class TcpSinkTest : public testing::Test {
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
        if (!raw.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT)) return false;
        if (!raw.connect("127.0.0.1", portOf(m_listenAddress))) return false;
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

}  // namespace

TEST_F(TcpSinkTest, HandshakeCarriesFlagAndUrlAndPairsTheEnds) {
    CTcpClientSink* client = connectClient();
    ASSERT_NE(client, nullptr);
    m_listen->setLocalApartmentUrl("tcp://127.0.0.1:6000");
    CTcpServerSink* server = acceptServer();
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->sinkType(), SERVER_SINK);
    EXPECT_FALSE(server->isSinkClosed());

    const std::string url = "tcp://127.0.0.1:5555";
    client->setLocalApartmentUrl(url.c_str());
    const Bytes block = connectionBlock(true, url);
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block.data(),
                                  static_cast<unsigned int>(block.size())));

    bool rt = false;
    ASSERT_TRUE(server->waitRemoteConnectionInfo(2000, rt));
    EXPECT_TRUE(rt);
    std::string remoteUrl, localUrl;
    ASSERT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(server, remoteUrl));
    ASSERT_TRUE(CApartmentSinkHelper::getLocalApartmentUrl(server, localUrl));
    EXPECT_EQ(remoteUrl, url);
    EXPECT_EQ(localUrl, "tcp://127.0.0.1:6000");

    // The accepted end names the client's end as its remote one.
    EXPECT_EQ(client->compareConnection(server), 0);
    EXPECT_EQ(server->compareConnection(client), 0);
}

TEST_F(TcpSinkTest, ConnectionBlockCarriesAtMost128UrlBytes) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    const std::string url = "tcp://" + std::string(122, '9');
    ASSERT_EQ(url.size(), 128u);
    Bytes block = connectionBlock(false, url);
    // A peer that breaks the rule and fills the last byte too cannot make
    // the URL longer than the block allows.
    block[129] = 'Z';
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block.data(), 130));
    bool rt = true;
    ASSERT_TRUE(server->waitRemoteConnectionInfo(2000, rt));
    EXPECT_FALSE(rt);
    std::string remoteUrl;
    ASSERT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(server, remoteUrl));
    EXPECT_EQ(remoteUrl, url);
}

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
        for (size_t i = 0; i < sizes.size(); ++i) {
            const Bytes payload = pattern(sizes[i], static_cast<unsigned int>(i));
            if (!client->sendFrame(static_cast<unsigned int>(100 + i), payload.data(), sizes[i]))
                ++sendFailures;
        }
    });
    for (size_t i = 0; i < sizes.size(); ++i) {
        unsigned int type = 0;
        Bytes received;
        ASSERT_TRUE(receiveWhole(server, type, received, 5000)) << "frame " << i;
        EXPECT_EQ(type, 100 + i);
        EXPECT_EQ(received, pattern(sizes[i], static_cast<unsigned int>(i))) << "frame " << i;
    }
    sender.join();
    EXPECT_EQ(sendFailures, 0);
}

TEST(TcpSinkWrites, EachFrameGoesOutInOneWrite) {
    // A sequenced-packet pair keeps the boundary of every write.
    SocketPair pair(SOCK_SEQPACKET);
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
    auto frame = [](const Bytes& head, const Bytes& tail) {
        Bytes bytes = header(9, static_cast<unsigned int>(head.size() + tail.size()));
        bytes.insert(bytes.end(), head.begin(), head.end());
        bytes.insert(bytes.end(), tail.begin(), tail.end());
        return std::vector<Bytes>{bytes};
    };
    for (unsigned int size : {0u, 1016u, 1017u, 3000u}) {
        const Bytes payload = pattern(size, 1);
        EXPECT_EQ(recordsFor(payload, Bytes()), frame(payload, Bytes())) << size;
    }
    // The fields and the caller's data, joined on the wire only.
    const Bytes fields = pattern(40, 2), data = pattern(5000, 3);
    EXPECT_EQ(recordsFor(fields, data), frame(fields, data));
}

// Header bytes leave the socket as they come (bytes left there would pin
// their whole socket buffer, and a burst of small frames could then close
// the receive window for good), but nothing is reported until the whole
// header and payload are there.
TEST_F(TcpSinkTest, HeaderInTwoPiecesIsNotReportedEarly) {
    CSocket raw;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(rawLink(raw, server));
    const Bytes head = header(7, 3);
    ASSERT_TRUE(rawSendAll(raw, Bytes(head.begin(), head.begin() + 5)));
    ASSERT_TRUE(server->innerSocket().readyToRead(2000, nullptr));
    unsigned int type = 0, size = 0;
    EXPECT_FALSE(server->receiveFrame(type, nullptr, size));
    EXPECT_FALSE(server->receiveFrame(type, nullptr, size));
    char peek[8];
    EXPECT_EQ(server->innerSocket().receive(peek, sizeof peek, MSG_PEEK | MSG_DONTWAIT), -1)
        << "header bytes were left in the socket";

    Bytes rest(head.begin() + 5, head.end());
    rest.insert(rest.end(), {'a', 'b', 'c'});
    ASSERT_TRUE(rawSendAll(raw, rest));
    Bytes received;
    ASSERT_TRUE(receiveWhole(server, type, received, 2000));
    EXPECT_EQ(type, 7u);
    EXPECT_EQ(std::string(received.begin(), received.end()), "abc");
}

TEST_F(TcpSinkTest, SizeQueryAndTooSmallBufferKeepTheFrame) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    const Bytes payload = pattern(300, 5);
    ASSERT_TRUE(client->sendFrame(2, payload.data(), 300));

    unsigned int type = 0, size = 0;
    const Clock::time_point start = Clock::now();
    while (!server->receiveFrame(type, nullptr, size) && elapsedMs(start) < 2000)
        server->innerSocket().readyToRead(20, nullptr);
    ASSERT_EQ(size, 300u);
    EXPECT_EQ(type, 2u);
    // Asking again reports the same frame.
    size = 0;
    ASSERT_TRUE(server->receiveFrame(type, nullptr, size));
    EXPECT_EQ(size, 300u);

    Bytes buffer(300, 0);
    unsigned int capacity = 299;
    EXPECT_FALSE(server->receiveFrame(type, buffer.data(), capacity));
    EXPECT_EQ(capacity, 299u);

    capacity = 300;
    ASSERT_TRUE(server->receiveFrame(type, buffer.data(), capacity));
    EXPECT_EQ(capacity, 300u);
    EXPECT_EQ(buffer, payload);
    size = 0;
    EXPECT_FALSE(server->receiveFrame(type, nullptr, size));  // nothing more
}

// The transport cuts and joins the byte stream anywhere; each cut below
// becomes one read. Frames must come out whole and in order, whether a read
// ends inside a header, exactly after one, or inside a payload that is too
// large for the read buffer.
TEST(TcpSinkBuffers, FramesCutAnywhereByTheTransportArriveWholeAndInOrder) {
    const unsigned int large = CTcpApartmentSink::READ_BUFFER_SIZE + 1000;
    const std::vector<unsigned int> sizes = {3, 0, 70, large, 5, 1, 200};
    Bytes stream;
    std::vector<size_t> headerEnds;
    for (size_t i = 0; i < sizes.size(); ++i) {
        const Bytes head = header(static_cast<unsigned int>(i), sizes[i]);
        const Bytes body = pattern(sizes[i], static_cast<unsigned int>(i));
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
        size_t sent = 0;
        size_t next = 0;
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
                    EXPECT_EQ(Bytes(payload, payload + size),
                              pattern(sizes[next], static_cast<unsigned int>(next)));
                    pair.sink->consumeFrame();
                    ++next;
                }
            } while (pair.sink->readAvailable() == CTcpApartmentSink::READ_DATA);
        }
        EXPECT_EQ(next, sizes.size());
        // Nothing but the read buffer stays held by an idle link.
        EXPECT_EQ(pair.sink->receiveCapacity(), CTcpApartmentSink::READ_BUFFER_SIZE);
        EXPECT_FALSE(pair.sink->hasFrameReady());
    }
}

TEST(TcpSinkBuffers, HeaderAboveTheMaximumIsRefusedBeforeAnythingIsAllocated) {
    SocketPair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok());
    pair.sink->setMaxFrameSize(1000);
    ASSERT_TRUE(rawSendAll(pair.peer, header(1, 1000)));  // at the maximum: fine
    ASSERT_TRUE(rawSendAll(pair.peer, pattern(1000, 1)));
    ASSERT_TRUE(rawSendAll(pair.peer, header(1, 0x7FFFFFF0)));
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
    ASSERT_TRUE(rawSendAll(rt.peer, header(7, CTcpApartmentSink::RT_MAX_FRAME_SIZE + 1)));
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

TEST_F(TcpSinkTest, ListenSinkRefusesFrames) {
    EXPECT_EQ(m_listen->sinkType(), LISTEN_SINK);
    const char byte = 1;
    EXPECT_FALSE(m_listen->sendFrame(1, &byte, 1));
    unsigned int type = 0, size = 0;
    EXPECT_FALSE(m_listen->receiveFrame(type, nullptr, size));
    // The listen sink answers its own interface and the TCP one, once counted.
    IApartmentListenSink* listen = asIApartmentListenSink(static_cast<IApartmentSink*>(m_listen));
    ASSERT_NE(listen, nullptr);
    ITcpApartmentSink* tcp = asITcpApartmentSink(listen);
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(tcp->getSocketFd(), m_listen->getSocketFd());
    tcp->releaseRef();
    EXPECT_EQ(listen->releaseRef(), 1UL);
}

TEST_F(TcpSinkTest, OtherFrameFirstIsSkippedThenConnectionAccepted) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    // Skipped only because it fits the 130-byte block exactly; see the next
    // test for a smaller one.
    const Bytes alive = pattern(130, 8);
    ASSERT_TRUE(client->sendFrame(APARTMENT_ALIVE_FRAME, alive.data(), 130));
    const Bytes block = connectionBlock(false, "tcp://127.0.0.1:1234");
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block.data(), 130));
    bool rt = true;
    ASSERT_TRUE(server->waitRemoteConnectionInfo(1000, rt));
    EXPECT_FALSE(rt);
    std::string remoteUrl;
    CApartmentSinkHelper::getRemoteApartmentUrl(server, remoteUrl);
    EXPECT_EQ(remoteUrl, "tcp://127.0.0.1:1234");
}

TEST_F(TcpSinkTest, SmallerFrameFirstShrinksTheOfferAndTheConnectionIsRefused) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    const Bytes small = pattern(20, 8);
    ASSERT_TRUE(client->sendFrame(APARTMENT_REQUEST_FRAME, small.data(), 20));
    const Bytes block = connectionBlock(false, "tcp://127.0.0.1:1234");
    ASSERT_TRUE(client->sendFrame(APARTMENT_CONNECTION_FRAME, block.data(), 130));
    bool rt = false;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(server->waitRemoteConnectionInfo(100, rt));
    EXPECT_LT(elapsedMs(start), 2000);
}

TEST_F(TcpSinkTest, WaitForConnectionInfoGivesUp) {
    // Silence.
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    bool rt = false;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(server->waitRemoteConnectionInfo(100, rt));
    long waited = elapsedMs(start);
    EXPECT_GE(waited, 80);
    EXPECT_LT(waited, 2000);

    // Half a header, then nothing: readable all along, but no progress.
    CSocket raw;
    CTcpServerSink* silent = nullptr;
    ASSERT_TRUE(rawLink(raw, silent));
    const Bytes head = header(APARTMENT_CONNECTION_FRAME, 130);
    ASSERT_TRUE(rawSendAll(raw, Bytes(head.begin(), head.begin() + 5)));
    start = Clock::now();
    EXPECT_FALSE(silent->waitRemoteConnectionInfo(100, rt));
    EXPECT_LT(elapsedMs(start), 2000);

    // Half a header, then the peer leaves.
    CSocket raw2;
    CTcpServerSink* gone = nullptr;
    ASSERT_TRUE(rawLink(raw2, gone));
    ASSERT_TRUE(rawSendAll(raw2, Bytes(head.begin(), head.begin() + 5)));
    raw2.close();
    start = Clock::now();
    EXPECT_FALSE(gone->waitRemoteConnectionInfo(5000, rt));
    EXPECT_LT(elapsedMs(start), 2000);
}

TEST(TcpClientSink, ConnectingWhereNothingListensFailsWithinAboutASecond) {
    CSocket probe;
    std::string ip;
    USHORT port = 0;
    ASSERT_TRUE(probe.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(probe.getSockName(ip, port));
    probe.close();

    CReference<IApartmentSink> client(new CTcpClientSink);
    const std::string address = "127.0.0.1:" + std::to_string(port);
    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    const bool ok = client->initSink(nullptr, address.c_str());
    const long waited = elapsedMs(start);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(ok);
    EXPECT_LT(waited, 3000);
    EXPECT_TRUE(printed.empty() ||
                printed == "[TcpApartment Error]: Can not connected to " + address + "\n")
        << printed;
    EXPECT_TRUE(client->isSinkClosed());
}

TEST(TcpListenSink, RandomPortsStayInRange) {
    CReference<IApartmentSink> holder(new CTcpListenSink);
    CTcpListenSink* sink = static_cast<CTcpListenSink*>(static_cast<IApartmentSink*>(holder));
    std::set<unsigned short> seen;
    for (int i = 0; i < 2000; ++i) {
        const unsigned short port = sink->randomPort();
        ASSERT_GE(port, 10000);
        ASSERT_LE(port, 50000);
        seen.insert(port);
    }
    EXPECT_GT(seen.size(), 1000u);
}

namespace {
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
}  // namespace

TEST(TcpListenSink, TakenRandomPortFailsWithoutASecondDraw) {
    CSocket holder;
    std::string ip;
    USHORT port = 0;
    ASSERT_TRUE(holder.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(holder.listen(1));
    ASSERT_TRUE(holder.getSockName(ip, port));

    FixedPortListenSink* sink = new FixedPortListenSink(port);
    CReference<IApartmentSink> ref(static_cast<IApartmentSink*>(sink));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(sink->initSink("127.0.0.1:0", nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Bind failed, error code: " + std::to_string(EADDRINUSE) + "\n");
    EXPECT_EQ(sink->draws, 1);
    EXPECT_EQ(sink->getSocketFd(), -1);

    // A free drawn port becomes the sink's address.
    holder.close();
    ASSERT_TRUE(sink->initSink("127.0.0.1:0", nullptr));
    EXPECT_EQ(localAddressOf(sink), "127.0.0.1:" + std::to_string(port));
}

TEST_F(TcpSinkTest, LocalUrlNamesTheLinksConcreteAddress) {
    CTcpClientSink* client = connectClient();
    ASSERT_NE(client, nullptr);
    const std::string clientAddress = localAddressOf(client);
    EXPECT_EQ(clientAddress.rfind("127.0.0.1:", 0), 0u) << clientAddress;

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

TEST(TcpSinkAddress, ResolveAndMake) {
    std::string ip, out;
    unsigned short port = 99;
    CTcpApartmentSink::resolveSinkAddress("10.0.0.1", ip, port);
    EXPECT_EQ(ip, "10.0.0.1");
    EXPECT_EQ(port, 0);
    CTcpApartmentSink::resolveSinkAddress("10.0.0.1:65537", ip, port);
    EXPECT_EQ(port, 1);  // cut to 16 bits
    CTcpApartmentSink::makeSinkAddress("", 0, out);
    EXPECT_EQ(out, "127.0.0.1");
    CTcpApartmentSink::makeSinkAddress("10.0.0.1", 80, out);
    EXPECT_EQ(out, "10.0.0.1:80");
    CTcpApartmentSink::makeSinkAddress(std::string(100, '1'), 80, out);
    EXPECT_EQ(out.size(), 63u);
}

// Writers of one link are coalesced into shared writes: their bytes must
// never interleave, and each writer must get its own frame's result (here
// every tenth frame is above the link's maximum and must fail alone).
TEST_F(TcpSinkTest, ConcurrentSendersNeverInterleaveFramesAndEachGetsItsOwnResult) {
    CTcpClientSink* client = nullptr;
    CTcpServerSink* server = nullptr;
    ASSERT_TRUE(connectPair(client, server));
    client->setMaxFrameSize(4000);

    constexpr int kThreads = 8;
    constexpr int kFrames = 200;
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
                const Bytes payload = pattern(size, type);
                const bool sent = client->sendFrame(type, payload.data(), size);
                if (sent != (size <= 4000)) ++wrongResults;
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

TEST_F(TcpSinkTest, StalledPeerEndsALargeSendAndCondemnsTheLink) {
    CTcpClientSink* client = connectClient();
    ASSERT_NE(client, nullptr);
    CTcpServerSink* server = acceptServer();  // never reads
    ASSERT_NE(server, nullptr);
    const Bytes payload(16u << 20, 0x5a);
    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    const bool sent = client->sendFrame(1, payload.data(), static_cast<unsigned int>(payload.size()));
    const long waited = elapsedMs(start);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(sent);
    EXPECT_LT(waited, 5000);
    EXPECT_EQ(printed, "TcpApartmentSink write failed.\n");
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
    std::atomic<bool> stop{false};
    std::thread drain([&] {
        std::vector<char> chunk(65536);
        while (!stop) {
            server->innerSocket().receive(chunk.data(), static_cast<int>(chunk.size()), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::atomic<bool> result{true};
    std::thread sender([&] {
        const Bytes payload(32u << 20, 1);
        testing::internal::CaptureStdout();
        result = client->sendFrame(1, payload.data(), static_cast<unsigned int>(payload.size()));
        testing::internal::GetCapturedStdout();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Clock::time_point start = Clock::now();
    client->closeSink();
    sender.join();
    EXPECT_LT(elapsedMs(start), 2000);
    stop = true;
    drain.join();
    EXPECT_FALSE(result);
    EXPECT_TRUE(client->isSinkClosed());
    EXPECT_EQ(client->getSocketFd(), -1);
}

TEST(TcpServerSink, AnswersEveryInterfaceOnOneCount) {
    CTcpServerSink* sink = new CTcpServerSink;
    IApartmentSink* primary = sink;
    void* asBase = nullptr;
    ASSERT_TRUE(sink->queryInterface("IBase", &asBase));
    EXPECT_EQ(asBase, static_cast<void*>(primary));
    void* asServer = nullptr;
    ASSERT_TRUE(sink->queryInterface("IApartmentServerSink", &asServer));
    EXPECT_EQ(asServer, static_cast<void*>(static_cast<IApartmentServerSink*>(sink)));
    ITcpApartmentSink* tcp = asITcpApartmentSink(static_cast<IApartmentServerSink*>(asServer));
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(tcp->getSocketFd(), -1);
    void* unknown = &asBase;
    EXPECT_FALSE(sink->queryInterface("IApartmentListenSink", &unknown));
    EXPECT_EQ(unknown, static_cast<void*>(&asBase));
    // Four references now, released through three different interfaces.
    EXPECT_EQ(tcp->releaseRef(), 3UL);
    EXPECT_EQ(static_cast<IApartmentServerSink*>(asServer)->releaseRef(), 2UL);
    EXPECT_EQ(static_cast<IApartmentSink*>(asBase)->releaseRef(), 1UL);
    EXPECT_EQ(primary->releaseRef(), 0UL);
}
