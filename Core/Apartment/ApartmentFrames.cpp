// CApartment's frames: writing requests, responses and raw frames on the
// caller's thread, and handling the frames that arrive, on the
// dispatching thread.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "Apartment.h"
#include "GroundKit/OS/OS_Clock.h"
#include "ApartmentNode.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentSink.h"
#include "FieldKit/BoundedStream/AbstractStream.h"
#include "GroundKit/OS/OS_Thread.h"
#include "os_log.h"

namespace {
// A link's local apartment URL for one frame, fetched without a heap
// allocation when it has a usual length.
class LinkLocalUrl {
public:
    explicit LinkLocalUrl(const IApartmentSink* pLink) {
        DWORD length = sizeof m_text;
        if (pLink->getLocalApartmentUrl(m_text, length) && length != 0) {
            m_view = std::string_view(m_text, length - 1);
        } else {
            CApartmentSinkHelper::getLocalApartmentUrl(pLink, m_long);
            m_view = m_long;
        }
    }
    std::string_view text() const { return m_view; }

private:
    char m_text[256];
    std::string m_long;
    std::string_view m_view;
};
}  // namespace

template <class Build>
bool CApartment::encodes(Build&& build) {
    try {
        build();
        return true;
    } catch (CAbstractStream::CStreamException* e) {
        delete e;  // a name or URL that is not pure ASCII: the caller's mistake, not a fault
        return false;
    }
}

bool CApartment::sendPayload(IApartmentSink* pSink, unsigned int uintFrameType,
                             const std::vector<char>& payload) {
    return pSink->sendFrame(uintFrameType, payload.empty() ? nullptr : payload.data(),
                            static_cast<unsigned int>(payload.size()));
}

bool CApartment::writeRequestFrame(const char* strApartmentNodeUrl,
                                   const char* strRemoteApartmentUrl,
                                   const char* strRemoteApartmentNodeUrl, void* pRequestBuffer,
                                   unsigned int uintBufLen, bool bRtConnection,
                                   unsigned int& uintRequestId, bool bRequireResponse) {
    CReference<IApartmentSink> link = linkOrConnect(strRemoteApartmentUrl, bRtConnection);
    if (link.nil()) return false;
    const LinkLocalUrl localUrl(link);
    // The counter returns the value after the addition; the id is the one
    // before it. Only its low 32 bits travel.
    const unsigned int id =
        static_cast<unsigned int>(OS::Thread::syncFetchAdd(&m_ulNextRequestId) - 1);
    CPayloadHead head;
    if (!encodes([&] {
            CApartmentFrameCodec::buildRequestHead(head, localUrl.text(), strApartmentNodeUrl,
                                                   strRemoteApartmentUrl,
                                                   strRemoteApartmentNodeUrl, id, bRequireResponse);
        }))
        return false;
    // The node learns what to wait for before the answer can come back.
    CReference<IApartmentNode> node;
    if (bRequireResponse) node = findApartmentNode(strApartmentNodeUrl);
    if (!node.nil()) static_cast<CApartmentNode*>(node.operator->())->expectResponse(id);
    // The caller's data follows the fields as it is, without a copy.
    const bool sent = link->sendFrameParts(APARTMENT_REQUEST_FRAME, head.data(), head.size(),
                                           pRequestBuffer,
                                           pRequestBuffer != nullptr ? uintBufLen : 0);
    if (sent)
        uintRequestId = id;
    else if (!node.nil())
        static_cast<CApartmentNode*>(node.operator->())->forgetResponse(id);
    return sent;
}

bool CApartment::writeResponseFrame(const char* strApartmentNodeUrl,
                                    const char* strRemoteApartmentUrl,
                                    const char* strRemoteApartmentNodeUrl,
                                    unsigned int uintRequestId, int intResponseCode,
                                    void* pResponseBuffer, unsigned int uintBufLen,
                                    bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection);
    if (!link.nil()) {
        return sendReply(link, strRemoteApartmentUrl, strApartmentNodeUrl,
                         strRemoteApartmentNodeUrl, uintRequestId, intResponseCode,
                         pResponseBuffer, pResponseBuffer != nullptr ? uintBufLen : 0);
    }
    // No link to the requester. An answer never waits for a connect here:
    // this is usually the dispatching thread, and a peer naming return
    // addresses that nobody answers would hold it for a connect time-out
    // per request. The reply opener opens the link and sends it. The names
    // are checked now, while the caller can still be told.
    CPayloadHead check;
    if (!encodes([&] {
            CApartmentFrameCodec::buildResponseHead(check, m_strApartmentUrl, strApartmentNodeUrl,
                                                    strRemoteApartmentUrl,
                                                    strRemoteApartmentNodeUrl, uintRequestId,
                                                    intResponseCode);
        }))
        return false;
    _PENDING_REPLY reply;
    reply.m_strNodeUrl = strApartmentNodeUrl != nullptr ? strApartmentNodeUrl : "";
    reply.m_strRemoteNodeUrl = strRemoteApartmentNodeUrl != nullptr ? strRemoteApartmentNodeUrl : "";
    reply.m_uintRequestId = uintRequestId;
    reply.m_intResponseCode = intResponseCode;
    reply.m_bHasData = pResponseBuffer != nullptr;
    if (pResponseBuffer != nullptr)
        reply.m_Data.assign(static_cast<const char*>(pResponseBuffer),
                            static_cast<const char*>(pResponseBuffer) + uintBufLen);
    return queueReply(LINK_KEY(strRemoteApartmentUrl, bRtConnection), std::move(reply));
}

bool CApartment::sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                           const _PENDING_REPLY& reply) {
    return sendReply(pLink, strRemoteApartmentUrl, reply.m_strNodeUrl.c_str(),
                     reply.m_strRemoteNodeUrl.c_str(), reply.m_uintRequestId,
                     reply.m_intResponseCode, reply.m_bHasData ? reply.m_Data.data() : nullptr,
                     static_cast<unsigned int>(reply.m_Data.size()));
}

bool CApartment::sendReply(IApartmentSink* pLink, const char* strRemoteApartmentUrl,
                           const char* strApartmentNodeUrl, const char* strRemoteApartmentNodeUrl,
                           unsigned int uintRequestId, int intResponseCode, const void* pData,
                           unsigned int uintDataSize) {
    const LinkLocalUrl localUrl(pLink);
    CPayloadHead head;
    if (!encodes([&] {
            CApartmentFrameCodec::buildResponseHead(head, localUrl.text(), strApartmentNodeUrl,
                                                    strRemoteApartmentUrl,
                                                    strRemoteApartmentNodeUrl, uintRequestId,
                                                    intResponseCode);
        }))
        return false;
    // The data follows the fields as it is, without a copy (both callers
    // give no size without data).
    return pLink->sendFrameParts(APARTMENT_RESPONSE_FRAME, head.data(), head.size(), pData,
                                 uintDataSize);
}

bool CApartment::writeRawFrame(const char* strRemoteApartmentUrl, unsigned int uintFrameType,
                               const void* pRawBuffer, unsigned int uintBufLen,
                               bool bRtConnection) {
    bool loopback = false;
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection, &loopback);
    if (loopback) {
        // A raw frame to itself is never sent: it reaches the callback at
        // once, on this thread.
        CReference<IApartmentCallback> cb = apartmentCallback();
        if (!cb.nil()) cb->onRawFrameReceived(uintFrameType, pRawBuffer, uintBufLen);
        return true;
    }
    if (link.nil()) return false;
    return link->sendFrame(uintFrameType, pRawBuffer, uintBufLen);
}
void CApartment::onLoopbackFrameArrived(IApartmentFrame* pFrame) {
    const unsigned int type = pFrame->getFrameType();
    const unsigned int size = pFrame->getFrameSize();
    CReference<IApartmentSink> server;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        server = m_LoopbackServerSink;
    }
    // Back through the server end to the client end, where it arrives as an
    // ordinary frame.
    if (!server.nil()) server->sendFrame(type, pFrame->getFrameBuffer(), size);
}

namespace {
// Parsed requests of the dispatching thread, one per nesting level (a node
// callback may pump, and so parse the next request, before its own returns),
// kept across frames so that their text stores keep their room: the fields
// of a request then cost no allocation.
struct ThreadRequests {
    std::vector<std::unique_ptr<APARTMENT_REQUEST_PAYLOAD>> parsed;
    size_t depth = 0;
};
thread_local ThreadRequests t_requests;

class RequestSlot {
public:
    RequestSlot() : m_Requests(t_requests) {
        if (m_Requests.parsed.size() <= m_Requests.depth)
            m_Requests.parsed.emplace_back(new APARTMENT_REQUEST_PAYLOAD());
        m_pRequest = m_Requests.parsed[m_Requests.depth++].get();
    }
    ~RequestSlot() { --m_Requests.depth; }
    APARTMENT_REQUEST_PAYLOAD& request() { return *m_pRequest; }

private:
    ThreadRequests& m_Requests;  // looked up once
    APARTMENT_REQUEST_PAYLOAD* m_pRequest;
};
}  // namespace

void CApartment::onRequestFrameArrived(IApartmentFrame* pFrame) {
    RequestSlot slot;
    APARTMENT_REQUEST_PAYLOAD& request = slot.request();
    if (!CApartmentFrameCodec::parseRequestPayload(pFrame->getFrameBuffer(), pFrame->getFrameSize(),
                                                   request))
        return;
    CReference<IApartmentNode> node(findApartmentNode(request.m_strTargetNodeUrl));
    if (node.nil()) return;
    // The host reads the data where it lies in the frame, which is this
    // handler's until it returns. The receiver lays frames out with the data
    // aligned; otherwise it moves to the buffer's (aligned) start.
    char* data = nullptr;
    if (request.m_uintDataSize != 0) {
        data = const_cast<char*>(request.m_pData);
        if (reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t) != 0) {
            data = pFrame->getFrameBuffer();
            std::memmove(data, request.m_pData, request.m_uintDataSize);
        }
    }
    node->receiveRequest(request.m_strSourceApartmentUrl,
                         request.m_strSourceNodeUrl,
                         request.m_strTargetApartmentUrl,
                         request.m_strTargetNodeUrl, request.m_uintRequestId, data,
                         request.m_uintDataSize, request.m_bRequireResponse);
}

namespace {
// The dispatching thread's parsed response, kept for the room of its text
// store as requests are (storing an answer calls out to nobody, so one
// level is enough).
thread_local APARTMENT_RESPONSE_PAYLOAD t_response;
}  // namespace

void CApartment::onResponseFrameArrived(IApartmentFrame* pFrame) {
    APARTMENT_RESPONSE_PAYLOAD& response = t_response;
    if (!CApartmentFrameCodec::parseResponsePayload(pFrame->getFrameBuffer(),
                                                    pFrame->getFrameSize(), response))
        return;
    CReference<IApartmentNode> node(findApartmentNode(response.m_strTargetNodeUrl));
    if (node.nil()) return;
    const CApartmentNode::ANSWER answer =
        static_cast<CApartmentNode*>(node.operator->())
            ->acceptResponse(response.m_uintRequestId, response.m_intResponseCode,
                             response.m_pData, response.m_uintDataSize);
    if (answer == CApartmentNode::ANSWER_DUPLICATE) {
        log_task_line("[Apartment Warning]: Request %u already have response.",
                      response.m_uintRequestId);
    } else if (answer == CApartmentNode::ANSWER_UNEXPECTED) {
        // One line for the first of a burst (a peer may send thousands):
        // at most one a second, counting the ones it kept quiet about.
        const long long now = OS::Clock::monotonicNow().tv_sec;
        const long long last = m_llUnexpectedLineAt.load();
        if (last >= 0 && now - last < 1) {
            ++m_ulUnexpectedSuppressed;
            return;
        }
        m_llUnexpectedLineAt = now;
        const unsigned long quiet = m_ulUnexpectedSuppressed.exchange(0);
        if (quiet == 0)
            log_task_line("[Apartment Warning]: Response %u to node %s answers no request it "
                          "waits for: dropped.",
                          response.m_uintRequestId, response.m_strTargetNodeUrl);
        else
            log_task_line("[Apartment Warning]: Response %u to node %s answers no request it "
                          "waits for: dropped (and %lu more since the last such line).",
                          response.m_uintRequestId, response.m_strTargetNodeUrl, quiet);
    }
}

void CApartment::onNormalFrameArrived(IApartmentFrame* pFrame) {
    if (pFrame->getFrameType() == APARTMENT_ALIVE_FRAME)
        onAliveFrameArrived(pFrame);
    else if (pFrame->getFrameType() == APARTMENT_ALIVE_ACK_FRAME)
        onAliveAckFrameArrived(pFrame);
}
