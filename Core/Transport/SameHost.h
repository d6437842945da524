// The same-host path: links between apartments of one host go over Unix
// stream sockets instead of TCP (about 0.6 of a loopback TCP round trip).
//
// Names. A listening apartment also listens on an abstract Unix socket
// name made from its URL:
//     "\0apartment:tcp://<IPv4>:<port>"
// (a zero byte, then the text; `ss -xl` shows "@apartment:tcp://..."). One
// on the wildcard address takes the name of 127.0.0.1 and of each address
// of an interface that is up, so that a client finds the name of the
// address it asks for, and the accepted end knows which address that was.
// The names are taken right after the port, with it: an apartment that
// cannot take one fails to start as for a taken port, and closes the
// names before the port. Since only the holder of a port can take its
// names, a name always belongs to the process that listens on its port.
//
// Links. A client linking to an address of this host (127.0.0.0/8, or an
// interface's) tries the name first: when nobody holds it (a peer of an
// older version, one with the path off) the attempt fails at once and the
// link goes over TCP as before, with no extra wait. Above the socket
// nothing changes: the frames byte for byte, the connection frame, TLS
// when configured, the handshake bounds, the maximum of links, the close
// notices, the stall rule. A link's addresses stay those a TCP link would
// have: the remote URL and address are the ones asked for, the local
// address the one the system would give a TCP connection to that address
// (with no port).
//
// APARTMENT_SAME_HOST=0 in the environment, read when the apartment is
// initialised, turns the path off both ways (for a capture of the links
// on the loopback interface, say).
//
// Stateless; any thread.
#ifndef APARTMENT_TRANSPORT_SAMEHOST_H
#define APARTMENT_TRANSPORT_SAMEHOST_H

#include <string>
#include <vector>

class CSameHost {
public:
    static const char* const VARIABLE;  // "APARTMENT_SAME_HOST"

    // The abstract name (without its leading zero byte) of an apartment
    // listening on ip:port.
    static std::string nameOf(const std::string& strIp, unsigned short uiPort);
    // Whether the dotted address is one of this host's: 127.0.0.0/8
    // without asking the system, an interface's address by asking it.
    static bool isHostAddress(const std::string& strIp);
    // The addresses whose names a listener on `strIp` takes: that address,
    // or for the wildcard 127.0.0.1 and every interface's address (empty
    // when they cannot be listed).
    static std::vector<std::string> namedAddresses(const std::string& strIp);
    // The dotted address a TCP connection from this host to `strIp` would
    // start from; `strIp` itself when the system cannot tell.
    static std::string sourceAddressFor(const std::string& strIp);
};

#endif
