// A frame header that arrives in pieces. Header bytes must leave the socket
// as they come: bytes left there pin their whole socket buffer, and a burst
// of small frames then closes the receive window for good (the sender
// stalls, gives the link up, and the reader spins on a header it never
// completes). A peer that closes after part of a header must also show as
// closed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "GroundKit/OS/Socket/OS_Socket.h"
#include "GroundKit/Reference/Reference.h"
#include "TcpApartmentSink.h"

namespace {

struct Link {
    CReference<IApartmentSink> listen;
    CReference<IApartmentSink> client;
    CReference<IApartmentSink> server;
};

// Listen (retrying: port 0 draws one random port), connect and accept.
bool makeLink(Link& link) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        link.listen = CReference<IApartmentSink>(new CTcpListenSink());
        if (!link.listen->initSink("127.0.0.1:0", nullptr)) continue;
        char address[64];
        DWORD length = sizeof address;
        if (!link.listen->getLocalAddress(address, length)) return false;
        link.client = CReference<IApartmentSink>(new CTcpClientSink());
        if (!link.client->initSink(nullptr, address)) return false;
        CReference<IApartmentListenSink> listen(asIApartmentListenSink(link.listen));
        CReference<IApartmentServerSink> server(listen->processConnectRequest(2000));
        if (server.nil()) return false;
        link.server = CReference<IApartmentSink>(asIApartmentSink(server));
        return !link.server.nil();
    }
    return false;
}

int fdOf(IApartmentSink* sink) {
    CReference<ITcpApartmentSink> tcp(asITcpApartmentSink(sink));
    return tcp.nil() ? -1 : tcp->getSocketFd();
}

void sendBytes(IApartmentSink* sink, const void* bytes, int length) {
    ASSERT_EQ(OS::Socket::send(fdOf(sink), bytes, length, 0, USE_DEFAULT), length);
}

// Bytes still waiting in the socket: -1 none (would block), 0 end of stream.
int pending(IApartmentSink* sink) {
    char peek[16];
    return OS::Socket::recv(fdOf(sink), peek, sizeof peek, MSG_PEEK | MSG_DONTWAIT, USE_DEFAULT);
}

// Calls receiveFrame (asking for the size only) until `done` holds; 2 s at most.
template <class Done>
bool pollReceive(IApartmentSink* sink, Done done) {
    for (int i = 0; i < 200; ++i) {
        unsigned int type = 0, size = 0;
        sink->receiveFrame(type, nullptr, size);
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

const unsigned char HEADER[8] = {0, 0, 0, 5, 0, 0, 0, 3};  // type 5, 3 bytes

TEST(TcpSinkPartialHeader, HeaderBytesAreConsumedAsTheyArrive) {
    Link link;
    ASSERT_TRUE(makeLink(link));
    sendBytes(link.client, HEADER, 7);
    EXPECT_TRUE(pollReceive(link.server, [&] { return pending(link.server) < 0; }))
        << pending(link.server) << " header bytes left in the socket";

    sendBytes(link.client, HEADER + 7, 1);
    sendBytes(link.client, "abc", 3);
    unsigned int type = 0, size = 0;
    ASSERT_TRUE(pollReceive(link.server, [&] {
        size = 0;
        return link.server->receiveFrame(type, nullptr, size);
    }));
    char body[16] = {0};
    size = sizeof body;
    ASSERT_TRUE(link.server->receiveFrame(type, body, size));
    EXPECT_EQ(type, 5u);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(std::string(body, size), "abc");
}

TEST(TcpSinkPartialHeader, PeerClosingAfterPartOfAHeaderShowsAsClosed) {
    Link link;
    ASSERT_TRUE(makeLink(link));
    sendBytes(link.client, HEADER, 3);
    link.client->closeSink();
    // The end of the stream must become visible to the reader's 4-byte peek
    // that detects a closed peer.
    EXPECT_TRUE(pollReceive(link.server, [&] { return pending(link.server) == 0; }));
}

}  // namespace
