// ISocket: a reference-counted IPv4 socket object.
//
// Results: bool operations return false on failure, int operations return
// the platform's count or -1; the reason is OS::Socket::getErrnoCode().
// Nothing blocks except where a time-out is given, since attach switches the
// descriptor to non-blocking mode. One object is used by one thread at a
// time unless its owner says otherwise (the TCP sinks serialise sends).
#ifndef FIELDKIT_SOCKET_ISOCKET_H
#define FIELDKIT_SOCKET_ISOCKET_H

#include <string>

#include "GroundKit/Base/IBase.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/Socket/OS_Socket.h"

class ISocket : public IBase {
public:
    static const char* interfaceName() { return "ISocket"; }

    // Takes over `fd` (not -1) when the object holds none; sets time-outs,
    // buffers, address reuse and non-blocking mode. False changes nothing.
    virtual bool attach(int fd, RT_MODE mode) = 0;
    // Gives the descriptor back without closing it (-1 when none).
    virtual int dettach() = 0;
    // Creates an IPv4 socket of `type`, attaches it and binds it.
    virtual bool initSocket(__socket_type type, const std::string& address, USHORT port,
                            RT_MODE mode) = 0;
    // Closes the descriptor, if any. Always true.
    virtual bool close() = 0;
    virtual bool bind(const std::string& address, USHORT port) = 0;
    virtual bool listen(int backlog) = 0;
    // True when connected or when the connection was started (non-blocking).
    virtual bool connect(const std::string& address, USHORT port) = 0;
    // Accepts one pending connection into `socket`, an unattached object of
    // the caller's; fills the peer's address and port. False when nothing was
    // pending or `socket` is null or refused the descriptor.
    virtual bool accept(ISocket*& socket, std::string& address, USHORT& port, RT_MODE mode) = 0;
    virtual int send(const void* data, int length, int flags) = 0;
    virtual int receive(void* data, int length, int flags) = 0;
    virtual int sendTo(const void* data, int length, const std::string& address, USHORT port,
                       int flags) = 0;
    virtual int receiveFrom(void* data, int length, std::string& address, USHORT& port,
                            int flags) = 0;
    virtual bool getPeerName(std::string& address, USHORT& port) = 0;
    virtual bool getSockName(std::string& address, USHORT& port) = 0;
    virtual int getSockopt(int level, int name, void* value, socklen_t* length) = 0;
    virtual int setSockopt(int level, int name, const void* value, socklen_t length) = 0;
};

class ISocketStub : public TRootStub<ISocket> {};

#endif
