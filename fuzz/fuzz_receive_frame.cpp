// Feeds arbitrary bytes to a TCP sink's receive state machine over a local
// socket pair, as a peer would send them.
//
// Input: one option byte, then the byte stream the peer writes.
//   bit 0  the sink is a real-time link (keeps its receive buffer)
//   bit 1  offer a buffer one byte too small before taking each frame
// The peer writes the stream, shuts its side down, and the sink is asked
// for frames (size query, then delivery) until nothing moves any more.
//
// Announced payload sizes above MAX_PAYLOAD are folded into range (the size
// field is rewritten to size % (MAX_PAYLOAD + 1)) before the bytes are sent:
// the sink allocates what a header announces, and multi-gigabyte headers
// would only trip the fuzzer's memory limit, not find faults. The stream is
// cut at MAX_STREAM bytes so that the write fits the socket buffer and
// cannot block.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "GroundKit/OS/Socket/OS_Socket.h"
#include "TcpApartmentSink.h"

namespace {

const size_t MAX_STREAM = 32 * 1024;
const uint32_t MAX_PAYLOAD = 4u << 20;
const int MAX_CALLS = 4096;

uint32_t readBigEndian(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

void writeBigEndian(uint8_t* p, uint32_t value) {
    p[0] = uint8_t(value >> 24);
    p[1] = uint8_t(value >> 16);
    p[2] = uint8_t(value >> 8);
    p[3] = uint8_t(value);
}

void foldPayloadSizes(std::vector<uint8_t>& stream) {
    size_t offset = 0;
    while (offset + 8 <= stream.size()) {
        uint32_t size = readBigEndian(&stream[offset + 4]);
        if (size > MAX_PAYLOAD) {
            size %= MAX_PAYLOAD + 1;
            writeBigEndian(&stream[offset + 4], size);
        }
        offset += 8 + size;
    }
}

bool writeAll(int fd, const std::vector<uint8_t>& stream) {
    size_t sent = 0;
    while (sent < stream.size()) {
        const int n = OS::Socket::send(fd, stream.data() + sent,
                                       static_cast<int>(stream.size() - sent), 0, USE_STD);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool rt = (data[0] & 1) != 0;
    const bool tryTooSmall = (data[0] & 2) != 0;
    std::vector<uint8_t> stream(data + 1, data + (size - 1 > MAX_STREAM ? MAX_STREAM + 1 : size));
    foldPayloadSizes(stream);

    int fds[2] = {-1, -1};
    if (OS::Socket::socketPair(AF_UNIX, SOCK_STREAM, 0, fds, USE_STD) != 0) return 0;
    CTcpServerSink* sink = new CTcpServerSink;
    sink->innerSocket().attach(fds[0], USE_DEFAULT);
    sink->initSink(nullptr, nullptr);
    sink->setRTConnection(rt);
    // The writer blocks and nobody reads yet: make sure the whole stream
    // fits in the pair's buffer.
    const int roomy = 256 * 1024;
    OS::Socket::setSockOpt(fds[1], SOL_SOCKET, SO_SNDBUF, &roomy, sizeof roomy, USE_STD);
    if (writeAll(fds[1], stream)) {
        OS::Socket::shutdown(fds[1], SHUT_WR, USE_STD);
        int idle = 0;
        for (int call = 0; call < MAX_CALLS && idle < 2; ++call) {
            unsigned int type = 0, frameSize = 0;
            if (!sink->receiveFrame(type, nullptr, frameSize)) {
                ++idle;
                continue;
            }
            idle = 0;
            std::vector<uint8_t> buffer(frameSize + 1);
            if (tryTooSmall && frameSize > 0) {
                unsigned int small = frameSize - 1;
                if (sink->receiveFrame(type, buffer.data(), small)) __builtin_trap();
            }
            unsigned int capacity = frameSize;
            unsigned int deliveredType = 0;
            if (!sink->receiveFrame(deliveredType, buffer.data(), capacity) ||
                capacity != frameSize || deliveredType != type)
                __builtin_trap();
        }
    }
    sink->releaseRef();
    OS::Socket::close(fds[1], USE_STD);
    return 0;
}
