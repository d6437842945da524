// The TCP sinks.
//
// CTcpApartmentSink owns one socket and turns its byte stream into frames
// and back: each frame is an 8-byte header (type, then payload size, both
// big-endian u32) followed by the payload, which it never interprets. The
// three concrete sinks differ in how their socket comes to exist:
//   CTcpListenSink   the apartment's listening socket; makes server sinks.
//   CTcpClientSink   the end an apartment connects towards another one.
//   CTcpServerSink   the accepted end; learns its peer from the first frame.
//
// Threads: sendFrame may be called from any thread. receiveFrame, the
// receive state and closeSink belong to the single communication thread that
// owns the sink (for a fresh server sink, the dispatching thread that reads
// its connection frame before sharing it). processConnectRequest runs on the
// listen thread; a client's initSink on the thread that connects.
#ifndef APARTMENT_TCPAPARTMENTSINK_H
#define APARTMENT_TCPAPARTMENTSINK_H

#include <string>

#include "ApartmentSink.h"
#include "FieldKit/Socket/Socket.h"
#include "GroundKit/OS/OS_Mutex.h"

class ITcpApartmentSinkStub : public TExtensionStub<CApartmentSink, ITcpApartmentSink> {
public:
    using TExtensionStub::TExtensionStub;
};

enum RECEIVE_FRAME_STEP {
    RECEIVE_FRAME_HEAD = 1,  // collecting the 8 header bytes
    RECEIVE_FRAME_BODY = 2   // header consumed, collecting the payload
};

class CTcpApartmentSink : public ITcpApartmentSinkStub {
public:
    static constexpr unsigned int FRAME_HEADER_SIZE = 8;
    static constexpr unsigned int SEND_BUFFER_SIZE = 1024;
    // Receive buffer a real-time link starts with, so that its thread does
    // not allocate in steady state.
    static constexpr unsigned int RT_RECEIVE_BUFFER_SIZE = 102400;
    // A send that cannot make progress for this long condemns the link.
    static constexpr DWORD SEND_STALL_TIMEOUT_MS = 100;
    static constexpr int LINK_SOCKET_BUFFER_SIZE = 65535;

    CTcpApartmentSink();
    virtual ~CTcpApartmentSink();

    // Also puts this link's concrete local IP in place of "0.0.0.0:", so a
    // wildcard-bound apartment advertises an address the peer can reach.
    void setLocalApartmentUrl(const char* strUrl) override;
    // Any thread. Blocks while the peer keeps taking bytes; false for a
    // listen sink, a broken link or a stall of SEND_STALL_TIMEOUT_MS (which
    // also prints a line and marks the sink expect-closed).
    bool sendFrame(const unsigned int& uintFrameType, const void* pData,
                   const unsigned int& uintSize) override;
    // Owning communication thread only; never blocks. See IApartmentSink.
    bool receiveFrame(unsigned int& uintFrameType, void* pBuffer,
                      unsigned int& uintSize) override;
    int getSocketFd() const override;

    // Raises the socket buffers to LINK_SOCKET_BUFFER_SIZE and turns off
    // Nagle's delay. False only when there is no socket.
    bool initSinkSocketOpt();

    // "ip:port" (just "ip" for port 0); an empty ip stands for 127.0.0.1.
    static void makeSinkAddress(const std::string& strIp, unsigned short uiPort,
                                std::string& strOut);
    // Splits at the first ':'; without one, the whole text is the ip and
    // the port is 0.
    static void resolveSinkAddress(const std::string& strAddress, std::string& strIp,
                                   unsigned short& uiPort);

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
    bool onSinkDestroyed() override;
    void onSinkClose() override;

    std::string m_strLocalIPAddress;
    unsigned short m_uiLocalIPPort;
    std::string m_strRemoteIPAddress;
    unsigned short m_uiRemoteIPPort;
    CSocket m_Socket;

    // Receive state: owning communication thread only, no lock.
    RECEIVE_FRAME_STEP m_intReceiveFrameStep;
    unsigned int m_uintReceiveFrameType;
    unsigned int m_uintReceiveFrameSize;
    char* m_pReceiveBuffer;
    unsigned int m_uintReceiveBufferSize;
    unsigned int m_uintReceiveBufferOffset;
    // Header bytes taken from the socket so far. They are consumed as they
    // arrive: bytes left unread would pin their whole socket buffer, and a
    // burst of small frames could then shut the receive window for good.
    unsigned char m_HeaderBytes[FRAME_HEADER_SIZE];
    unsigned int m_uintHeaderOffset;

    // Guards the staging buffer and keeps each frame's bytes contiguous on
    // the wire; closing the socket takes it too, so that no sender writes to
    // a descriptor that is being closed (or already reused). Recursive, so a
    // nested send from the same thread cannot deadlock. Nothing else is
    // locked while it is held.
    OS::TRecursiveMutex m_SendMutex;
    char* m_pSendBuffer;
    unsigned int m_uintSendBufferSize;
    unsigned int m_uintSendBufferOffset;  // unused: sendFrame keeps its fill level locally

    // How far the frame in reception has come (header bytes waiting, then
    // payload bytes held); grows with every byte taken in.
    unsigned long receiveProgress();

private:
    bool _ensureReceiveBuffer(unsigned int uintSize);
    bool _resetReceiveBuffer(unsigned int uintSize);
    void _clearReceiveBuffer();
    bool _rawPeek(void* pBuffer, const unsigned int& uintSize);
    bool _rawSend(const void* pData, const unsigned int& uintSize);
};

class IApartmentListenSinkStub : public TExtensionStub<CTcpApartmentSink, IApartmentListenSink> {
public:
    using TExtensionStub::TExtensionStub;
};

class IApartmentServerSinkStub : public TExtensionStub<CTcpApartmentSink, IApartmentServerSink> {
public:
    using TExtensionStub::TExtensionStub;
};

class CTcpServerSink;

// The apartment's listening socket. With local port 0 it draws exactly one
// random port in RANDOM_PORT_MIN..RANDOM_PORT_MAX and fails if that one is
// taken.
class CTcpListenSink : public IApartmentListenSinkStub {
public:
    static constexpr unsigned short RANDOM_PORT_MIN = 10000;
    static constexpr unsigned short RANDOM_PORT_MAX = 50000;
    static constexpr int LISTEN_BACKLOG = 5;

    APARTMENT_SINK_TYPE sinkType() const override;
    // Listen thread only. May throw (an allocation failure); the accepted
    // connection is then closed.
    IApartmentServerSink* processConnectRequest(DWORD dwTimeoutMs) override;

    // A uniform draw from RANDOM_PORT_MIN..RANDOM_PORT_MAX, freshly seeded
    // from the system's random device. Virtual so that a test can make the
    // draw land on a port it holds.
    virtual unsigned short randomPort();

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
};

// The connecting end. initSink(local, remote) connects within
// CONNECT_TIMEOUT_MS; it sends nothing (the apartment sends the connection
// frame).
class CTcpClientSink : public CTcpApartmentSink {
public:
    static constexpr DWORD CONNECT_TIMEOUT_MS = 1000;

    APARTMENT_SINK_TYPE sinkType() const override;

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
};

// The accepted end, created by CTcpListenSink::processConnectRequest.
class CTcpServerSink : public IApartmentServerSinkStub {
public:
    // The fixed payload of a connection frame: the real-time flag, then the
    // peer's URL, zero-padded, with a final zero that always terminates it.
    static constexpr unsigned int CONNECTION_FRAME_SIZE = 130;
    static constexpr unsigned int CONNECTION_FRAME_URL_OFFSET = 1;
    // The whole handshake wait never lasts longer than this (plus one
    // readability wait): it runs on the host's dispatching thread, and a
    // peer feeding a huge first frame byte by byte would otherwise hold
    // that thread for as long as it likes.
    static constexpr DWORD CONNECTION_INFO_TOTAL_TIMEOUT_MS = 1000;

    APARTMENT_SINK_TYPE sinkType() const override;
    // Dispatching thread, before the sink is shared. Frames of other types
    // are dropped while it waits. Each wait for data lasts up to dwTimeoutMs;
    // a peer that keeps the link readable without completing a frame (half a
    // header, say) is given up after dwTimeoutMs without progress, and any
    // peer after CONNECTION_INFO_TOTAL_TIMEOUT_MS in all. False drops the
    // connection.
    bool waitRemoteConnectionInfo(DWORD dwTimeoutMs, bool& bRtConnection) override;

    // The socket the listen sink accepts into; not yet attached before that.
    CSocket& innerSocket();

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override;
};

#endif
