#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "FieldKit/Socket/Socket.h"

namespace {

using Clock = std::chrono::steady_clock;

long elapsedMs(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Makes `socket` listen on 127.0.0.1 at a system-chosen port; that port, or
// 0 when any step failed.
USHORT listenOnAnyPort(CSocket& socket, int backlog) {
    std::string ip;
    USHORT port = 0;
    if (!socket.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT) || !socket.listen(backlog) ||
        !socket.getSockName(ip, port))
        return 0;
    return port;
}

// A listener on 127.0.0.1 with a system-chosen port, a client connected to
// it and the accepted server end.
struct TcpLink {
    CSocket listener, client, server;
    USHORT port = 0;

    void open() {
        port = listenOnAnyPort(listener, 5);
        ASSERT_NE(port, 0);
        ASSERT_TRUE(client.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
        ASSERT_TRUE(client.connect("127.0.0.1", port));
        ASSERT_TRUE(listener.readyToRead(2000, nullptr));
        ISocket* target = &server;
        std::string peer;
        USHORT peerPort = 0;
        ASSERT_TRUE(listener.accept(target, peer, peerPort, USE_DEFAULT));
        ASSERT_TRUE(client.readyToWrite(2000, nullptr));
    }
};

// A port on 127.0.0.1 on which nothing listens (bound, read back, closed).
USHORT unusedPort() {
    CSocket probe;
    std::string ip;
    USHORT port = 0;
    if (!probe.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT)) return 0;
    if (!probe.getSockName(ip, port)) return 0;
    probe.close();
    return port;
}

}  // namespace

TEST(SockAddr, ConvertsTextAndPortBothWays) {
    CSockAddr addr(std::string("10.1.2.3"), 4660);
    EXPECT_EQ(addr.dottedDecimal(), "10.1.2.3");
    EXPECT_EQ(addr.Port(), 4660);
    EXPECT_EQ(addr.iPAddr(), 0x0A010203UL);
    EXPECT_EQ(addr.sin_family, AF_INET);

    CSockAddr numeric(0x7F000001UL, 80);
    EXPECT_EQ(numeric.dottedDecimal(), "127.0.0.1");
    CSockAddr copy(static_cast<const sockaddr&>(numeric));
    EXPECT_EQ(copy.dottedDecimal(), "127.0.0.1");
    EXPECT_EQ(copy.Port(), 80);
}

TEST(SockAddr, UnparseableTextIsTheWildcard) {
    EXPECT_EQ(CSockAddr(std::string("not-an-address"), 1).dottedDecimal(), "0.0.0.0");
    EXPECT_EQ(CSockAddr(std::string(""), 1).dottedDecimal(), "0.0.0.0");
    // All ones is indistinguishable from a parse error, and taken as such.
    EXPECT_EQ(CSockAddr(std::string("255.255.255.255"), 1).dottedDecimal(), "0.0.0.0");
}

TEST(Socket, AttachRefusesMinusOneAndASecondDescriptor) {
    CSocket socket;
    EXPECT_FALSE(socket.attach(-1, USE_DEFAULT));
    EXPECT_EQ(socket.getSockFd(), -1);

    const int first = OS::Socket::socket(AF_INET, SOCK_STREAM, 0, USE_STD);
    const int second = OS::Socket::socket(AF_INET, SOCK_STREAM, 0, USE_STD);
    ASSERT_NE(first, -1);
    ASSERT_NE(second, -1);
    EXPECT_TRUE(socket.attach(first, USE_DEFAULT));
    EXPECT_FALSE(socket.attach(second, USE_DEFAULT));
    EXPECT_EQ(socket.getSockFd(), first);

    // attach made the descriptor non-blocking: a receive on an unconnected
    // stream socket fails at once instead of waiting.
    char byte;
    EXPECT_EQ(socket.receive(&byte, 1, 0), -1);

    EXPECT_EQ(socket.dettach(), first);
    EXPECT_EQ(socket.getSockFd(), -1);
    OS::Socket::close(first, USE_STD);
    OS::Socket::close(second, USE_STD);
}

TEST(Socket, CloseWithoutDescriptorSucceeds) {
    CSocket socket;
    EXPECT_TRUE(socket.close());
    EXPECT_TRUE(socket.close());
    EXPECT_EQ(socket.getSockFd(), -1);
}

TEST(Socket, WildcardAndNonAddressBindTheSameWildcard) {
    for (const char* text : {"0.0.0.0", "not-an-address"}) {
        CSocket socket;
        ASSERT_TRUE(socket.initSocket(SOCK_STREAM, text, 0, USE_DEFAULT)) << text;
        std::string ip;
        USHORT port = 0;
        ASSERT_TRUE(socket.getSockName(ip, port));
        EXPECT_EQ(ip, "0.0.0.0") << text;
        EXPECT_NE(port, 0) << text;
    }
}

TEST(Socket, BindOfABusyPortPrintsTheErrorCode) {
    CSocket holder;
    const USHORT port = listenOnAnyPort(holder, 1);
    ASSERT_NE(port, 0);

    CSocket second;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(second.initSocket(SOCK_STREAM, "127.0.0.1", port, USE_DEFAULT));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Bind failed, error code: " + std::to_string(EADDRINUSE) + "\n");
}

TEST(Socket, ConnectWhereNothingListensStartsThenFails) {
    const USHORT port = unusedPort();
    ASSERT_NE(port, 0);
    CSocket socket;
    ASSERT_TRUE(socket.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    EXPECT_TRUE(socket.connect("127.0.0.1", port));
    ASSERT_TRUE(socket.readyToWrite(2000, nullptr));
    int error = 0;
    socklen_t length = sizeof error;
    ASSERT_EQ(socket.getSockopt(SOL_SOCKET, SO_ERROR, &error, &length), 0);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_TRUE(socket.isLinkBroken());
    char byte = 'x';
    EXPECT_EQ(socket.send(&byte, 1, 0), -1);
}

TEST(Socket, AcceptNeedsAPendingConnectionAndAFreeSocketObject) {
    CSocket listener;
    const USHORT port = listenOnAnyPort(listener, 5);
    ASSERT_NE(port, 0);

    CSocket target;
    ISocket* targetPtr = &target;
    std::string peer = "unchanged";
    USHORT peerPort = 7;
    // Non-blocking: nothing pending fails at once and attaches nothing.
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(listener.accept(targetPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_LT(elapsedMs(start), 400);
    EXPECT_EQ(target.getSockFd(), -1);
    EXPECT_EQ(peer, "unchanged");
    ISocket* none = nullptr;
    EXPECT_FALSE(listener.accept(none, peer, peerPort, USE_DEFAULT));

    CSocket client;
    ASSERT_TRUE(client.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(client.connect("127.0.0.1", port));
    ASSERT_TRUE(listener.readyToRead(2000, nullptr));

    // An object that already holds a descriptor refuses the connection.
    CSocket busy;
    ASSERT_TRUE(busy.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    const int busyFd = busy.getSockFd();
    ISocket* busyPtr = &busy;
    EXPECT_FALSE(listener.accept(busyPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_EQ(busy.getSockFd(), busyFd);

    // That connection was closed; the next one is accepted normally.
    CSocket client2;
    ASSERT_TRUE(client2.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(client2.connect("127.0.0.1", port));
    ASSERT_TRUE(listener.readyToRead(2000, nullptr));
    ASSERT_TRUE(listener.accept(targetPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_NE(target.getSockFd(), -1);
    std::string clientIp;
    USHORT clientPort = 0;
    ASSERT_TRUE(client2.getSockName(clientIp, clientPort));
    EXPECT_EQ(peer, "127.0.0.1");
    EXPECT_EQ(peerPort, clientPort);
}

TEST(Socket, SendAndReceiveOverALink) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    char buffer[16];
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(OS::Socket::getErrnoCode(), EAGAIN);

    ASSERT_EQ(link.client.send("hello", 5, 0), 5);
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, MSG_PEEK), 5);
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), 5);
    EXPECT_EQ(std::string(buffer, 5), "hello");

    std::string ip;
    USHORT port = 0;
    ASSERT_TRUE(link.server.getPeerName(ip, port));
    EXPECT_EQ(ip, "127.0.0.1");

    link.client.close();
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), 0);
}

TEST(Socket, LinkBrokenAfterHalfAHeaderAndShutdown) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    EXPECT_FALSE(link.server.isLinkBroken());
    ASSERT_EQ(link.client.send("\0\0\0\1\0", 5, 0), 5);
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_FALSE(link.server.isLinkBroken());  // bytes pending, peer still there

    ASSERT_EQ(OS::Socket::shutdown(link.client.getSockFd(), SHUT_WR, USE_STD), 0);
    const Clock::time_point start = Clock::now();
    while (!link.server.isLinkBroken() && elapsedMs(start) < 2000) {
        link.server.readyToReadInMicroSecond(1000, nullptr);
    }
    EXPECT_TRUE(link.server.isLinkBroken());
    // The five bytes are still there to read.
    char buffer[8];
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, MSG_PEEK), 5);
}

TEST(Socket, LinkBrokenWhenPeerClosesWithBytesPending) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    // The server has unread bytes and closes: its side resets the link.
    ASSERT_EQ(link.client.send("abc", 3, 0), 3);
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    link.server.close();
    const Clock::time_point start = Clock::now();
    while (!link.client.isLinkBroken() && elapsedMs(start) < 2000) {
        link.client.readyToReadInMicroSecond(1000, nullptr);
    }
    EXPECT_TRUE(link.client.isLinkBroken());

    CSocket empty;
    EXPECT_TRUE(empty.isLinkBroken());
}

TEST(Socket, ReadableAndWritableWaitsAreBounded) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    int error = -1;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(link.server.readyToRead(60, &error));
    long waited = elapsedMs(start);
    EXPECT_GE(waited, 50);
    EXPECT_LT(waited, 1000);
    EXPECT_EQ(error, ETIMEDOUT);

    start = Clock::now();
    EXPECT_FALSE(link.server.readyToReadInMicroSecond(20000, &error));
    waited = elapsedMs(start);
    EXPECT_GE(waited, 15);
    EXPECT_LT(waited, 1000);

    EXPECT_TRUE(link.server.readyToWrite(1000, &error));
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(link.server.readyToWriteInMicroSecond(0, nullptr));

    // No descriptor: the wait fails at once instead of sleeping.
    CSocket empty;
    start = Clock::now();
    EXPECT_FALSE(empty.readyToRead(5000, &error));
    EXPECT_EQ(error, EBADF);
    EXPECT_FALSE(empty.readyToWrite(5000, nullptr));
    EXPECT_LT(elapsedMs(start), 1000);
}

TEST(Socket, DatagramRoundTrip) {
    CSocket receiver, sender;
    ASSERT_TRUE(receiver.initSocket(SOCK_DGRAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(sender.initSocket(SOCK_DGRAM, "127.0.0.1", 0, USE_DEFAULT));
    std::string ip;
    USHORT port = 0;
    ASSERT_TRUE(receiver.getSockName(ip, port));
    ASSERT_EQ(sender.sendTo("ping", 4, "127.0.0.1", port, 0), 4);
    ASSERT_TRUE(receiver.readyToRead(2000, nullptr));
    char buffer[8];
    std::string from;
    USHORT fromPort = 0;
    ASSERT_EQ(receiver.receiveFrom(buffer, sizeof buffer, from, fromPort, 0), 4);
    EXPECT_EQ(std::string(buffer, 4), "ping");
    EXPECT_EQ(from, "127.0.0.1");
}

TEST(Socket, ReferenceCountedObjectClosesOnLastRelease) {
    CSocket* socket = new CSocket;
    ASSERT_TRUE(socket->initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    const int fd = socket->getSockFd();
    void* asBase = nullptr;
    ASSERT_TRUE(socket->queryInterface("ISocket", &asBase));
    EXPECT_EQ(socket->releaseRef(), 1UL);
    EXPECT_EQ(socket->releaseRef(), 0UL);
    // The descriptor is closed: fcntl-free check through the platform.
    int type = 0;
    socklen_t length = sizeof type;
    EXPECT_EQ(OS::Socket::getSockOpt(fd, SOL_SOCKET, SO_TYPE, &type, &length, USE_STD), -1);
}
