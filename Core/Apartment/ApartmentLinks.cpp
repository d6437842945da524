// CApartment's links: opening them (shared by the threads that need the
// same new link, and by the reply opener for answers to unlinked
// requesters), filing the ones that arrive, looking them up, dropping them
// and telling the nodes when one closes.
#include <algorithm>
#include <string_view>

#include "Apartment.h"
#include "ApartmentFrameCodec.h"
#include "ApartmentGuard.h"
#include "ApartmentSink.h"
#include "GroundKit/OS/OS_Clock.h"
#include "os_log.h"

namespace {
// The connection frame of a link handed to dispatch has been read already
// (by the listen thread): its wait ends at once.
const DWORD CONNECTION_INFO_TIMEOUT_MS = 100;
// Bounds of the answers waiting for the reply opener, so that a peer
// naming return addresses nobody answers cannot pile up memory: at most
// this many links being opened for answers (queued or under way), and at
// most this many bytes of answers waiting for them, each answer counted
// with REPLY_OVERHEAD_BYTES on top of its names and data. An answer beyond
// either bound is dropped at once and its write fails.
const size_t MAX_REPLY_OPENS = 8;
const size_t MAX_PENDING_REPLY_BYTES = 16u << 20;
const size_t REPLY_OVERHEAD_BYTES = 256;
}  // namespace

CApartment::SinkMap& CApartment::sinkMap(bool bRtConnection) {
    return bRtConnection ? m_RtCommunicationSinkMap : m_NonRtCommunicationSinkMap;
}

bool CApartment::loopbackApartment(const char* strRemoteApartmentUrl) const {
    return strRemoteApartmentUrl != nullptr && !m_strLoopbackApartmentUrl.empty() &&
           m_strLoopbackApartmentUrl == strRemoteApartmentUrl;
}

bool CApartment::connectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    const LINK_KEY key(strRemoteApartmentUrl, bRtConnection);
    std::shared_ptr<_LINK_OPEN> open;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (sinkMap(bRtConnection).count(key.first) != 0) return true;
        auto pending = m_LinkOpens.find(key);
        if (pending != m_LinkOpens.end() && pending->second->m_bStarted) {
            // Another thread is opening this very link: share its outcome
            // rather than open a second link that one end would drop (with
            // what was written on it). Bounded by that open's connect
            // time-out.
            const std::shared_ptr<_LINK_OPEN> awaited = pending->second;
            while (!awaited->m_bDone) m_LinkOpenCondition.wait();
            return awaited->m_bOpened;
        }
        if (pending != m_LinkOpens.end()) {
            // Queued for the reply opener and not started: this thread
            // opens it now (and sends the answers waiting for it) rather
            // than wait behind the opener's other links.
            open = pending->second;
            auto queued = std::find(m_ReplyOpenQueue.begin(), m_ReplyOpenQueue.end(), key);
            if (queued != m_ReplyOpenQueue.end()) m_ReplyOpenQueue.erase(queued);
        } else {
            open = std::make_shared<_LINK_OPEN>();
            m_LinkOpens.emplace(key, open);
        }
        open->m_bStarted = true;
    }
    return runLinkOpen(key, open);
}

bool CApartment::runLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open) {
    bool opened = false;
    try {
        opened = openLink(key);
    } catch (...) {
        finishLinkOpen(key, open, false);  // its waiters must not wait for ever
        throw;
    }
    finishLinkOpen(key, open, opened);
    return opened;
}

bool CApartment::openLink(const LINK_KEY& key) {
    const char* strRemoteApartmentUrl = key.first.c_str();
    const bool bRtConnection = key.second;
    std::string address;
    getPortAddressFromApartmentUrl(strRemoteApartmentUrl, address);
    CReference<IApartmentSink> sink(createSink(CLIENT_SINK));
    if (sink.nil()) return false;
    if (!sink->initSink(nullptr, address.c_str())) return false;

    sink->setLocalApartmentUrl(m_strApartmentUrl.c_str());
    std::string localUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(sink, localUrl);
    sink->setRemoteApartmentUrl(strRemoteApartmentUrl);
    sink->setRTConnection(bRtConnection);

    char block[APARTMENT_CONNECTION_BLOCK_SIZE];
    CApartmentFrameCodec::buildConnectionBlock(bRtConnection, localUrl.c_str(), block);
    // A link whose peer never learnt who we are would never be read as ours.
    if (!sink->sendFrame(APARTMENT_CONNECTION_FRAME, block,
                         static_cast<unsigned int>(APARTMENT_CONNECTION_BLOCK_SIZE)))
        return false;

    if (localUrl == key.first) {
        sink->setLoopbackType(CLIENT_LOOPBACK_TYPE);
        bool stored = false;
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            // Loopback sinks are read by the non-real-time thread.
            if (m_LoopbackClientSink.nil() && watchLink(sink, false)) {
                m_strLoopbackApartmentUrl = key.first;
                m_LoopbackClientSink = sink;
                log_task_line("Detected client loopback interface changed(%s---->%s).",
                              localUrl.c_str(), strRemoteApartmentUrl);
                stored = true;
            }
        }
        // Loopback sinks never pass through addApartmentSink, which starts
        // the non-real-time thread for ordinary links; without this an
        // apartment linked only to itself would never read its loopback.
        if (stored) createNonRtCommunicationThread();
    } else {
        addApartmentSink(sink);
    }
    return true;
}

void CApartment::finishLinkOpen(const LINK_KEY& key, const std::shared_ptr<_LINK_OPEN>& open,
                                bool bOpened) {
    std::vector<_PENDING_REPLY> replies;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        open->m_bDone = true;
        open->m_bOpened = bOpened;
        auto it = m_LinkOpens.find(key);
        if (it != m_LinkOpens.end() && it->second == open) m_LinkOpens.erase(it);
        replies.swap(open->m_Replies);
        for (const _PENDING_REPLY& reply : replies) m_uintPendingReplyBytes -= replyCost(reply);
        if (open->m_bForReplies) --m_uintReplyOpens;
        m_LinkOpenCondition.notifyAll();
    }
    if (!replies.empty()) deliverReplies(key, replies, bOpened);
}

size_t CApartment::replyCost(const _PENDING_REPLY& reply) {
    return REPLY_OVERHEAD_BYTES + reply.m_strNodeUrl.size() + reply.m_strRemoteNodeUrl.size() +
           reply.m_Data.size();
}

bool CApartment::queueReply(const LINK_KEY& key, _PENDING_REPLY&& reply) {
    const size_t cost = replyCost(reply);
    const char* refusal = nullptr;
    CReference<IApartmentSink> link;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        link = linkLocked(key.first.c_str(), key.second, nullptr);
        auto pending = m_LinkOpens.find(key);
        if (!link.nil()) {
            // Filed meanwhile: sent below.
        } else if (m_uintPendingReplyBytes + cost > MAX_PENDING_REPLY_BYTES) {
            refusal = "too many bytes of responses wait for links";
        } else if (pending == m_LinkOpens.end() && m_uintReplyOpens >= MAX_REPLY_OPENS) {
            refusal = "too many links are being opened for responses";
        } else if (pending == m_LinkOpens.end() && !createReplyOpenerThread()) {
            refusal = "no thread opens links for responses";  // it would never be sent
        } else {
            if (pending == m_LinkOpens.end()) {
                std::shared_ptr<_LINK_OPEN> open = std::make_shared<_LINK_OPEN>();
                open->m_bForReplies = true;
                pending = m_LinkOpens.emplace(key, open).first;
                m_ReplyOpenQueue.push_back(key);
                ++m_uintReplyOpens;
                m_LinkOpenCondition.notifyAll();
            }
            pending->second->m_Replies.push_back(std::move(reply));
            m_uintPendingReplyBytes += cost;
            return true;
        }
    }
    if (refusal != nullptr) {
        log_task_line("[Apartment Warning]: Response %u to %s dropped: %s.",
                      reply.m_uintRequestId, key.first.c_str(), refusal);
        return false;
    }
    return sendReply(link, key.first.c_str(), reply);
}

void CApartment::deliverReplies(const LINK_KEY& key, std::vector<_PENDING_REPLY>& replies,
                                bool bOpened) {
    CReference<IApartmentSink> link;
    if (bOpened) link = findLink(key.first.c_str(), key.second);
    if (link.nil()) {
        log_task_line("[Apartment Warning]: No link to %s could be opened: %zu response(s) "
                      "dropped.",
                      key.first.c_str(), replies.size());
        return;
    }
    size_t failed = 0;
    for (const _PENDING_REPLY& reply : replies)
        if (!guarded("sending a queued response", false,
                     [&] { return sendReply(link, key.first.c_str(), reply); }))
            ++failed;
    if (failed != 0)
        log_task_line("[Apartment Warning]: %zu response(s) to %s could not be sent.", failed,
                      key.first.c_str());
}

void CApartment::openQueuedReplyLink(DWORD dwTimeout) {
    LINK_KEY key;
    std::shared_ptr<_LINK_OPEN> open;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        if (m_ReplyOpenQueue.empty()) {
            m_LinkOpenCondition.wait(OS::Clock::monotonicDeadline(dwTimeout));
            return;
        }
        key = m_ReplyOpenQueue.front();
        m_ReplyOpenQueue.pop_front();
        auto it = m_LinkOpens.find(key);
        if (it == m_LinkOpens.end()) return;
        open = it->second;
        open->m_bStarted = true;
    }
    runLinkOpen(key, open);
}

void CApartment::dropQueuedReplyOpens() {
    std::vector<std::pair<LINK_KEY, std::shared_ptr<_LINK_OPEN>>> queued;
    {
        TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
        for (const LINK_KEY& key : m_ReplyOpenQueue) {
            auto it = m_LinkOpens.find(key);
            if (it != m_LinkOpens.end()) queued.emplace_back(key, it->second);
        }
        m_ReplyOpenQueue.clear();
    }
    for (auto& entry : queued) finishLinkOpen(entry.first, entry.second, false);
}

void CApartment::addApartmentSink(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    const bool bRtConnection = pSink->getRTConnection();
    std::string localUrl, remoteUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(pSink, localUrl);
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);

    if (localUrl != remoteUrl) {
        SinkMap& map = sinkMap(bRtConnection);
        CReference<IApartmentSink> replaced;  // released after the unlock
        // Also when links are filed already: a thread that could not be
        // created before is tried again.
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            // Also when links are filed already: a thread that could not be
            // created before is tried again.
            if (bRtConnection)
                createRtCommunicationThread();
            else
                createNonRtCommunicationThread();
            auto it = map.find(remoteUrl);
            if (it == map.end()) {
                if (!watchLink(pSink, bRtConnection)) return;  // dropped: nothing would read it
                pSink->addRef();
                map.emplace(remoteUrl, CReference<IApartmentSink>(pSink));
            } else {
                // A peer opens a link only when it holds none to us, so a
                // second accepted link under its URL means it dropped the
                // first (a quick reconnect whose old close is not handled
                // yet): the new one is kept. Links opened from both ends at
                // once are settled by compareConnection, which both ends
                // answer alike.
                const bool reconnected =
                    pSink->sinkType() == SERVER_SINK && it->second->sinkType() == SERVER_SINK;
                if (!reconnected && pSink->compareConnection(it->second) <= 0) return;
                if (!watchLink(pSink, bRtConnection)) return;
                replaced = it->second;
                unwatchLink(replaced);
                pSink->addRef();
                it->second = pSink;
            }
        }
        return;
    }

    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (pSink->sinkType() == CLIENT_SINK) {
        if (!m_LoopbackClientSink.nil())
            log_task_line("Client loopback apartment sink is already added.");
        else
            log_task_line("Client loopback apartment sink should not be added in function %s.",
                          "addApartmentSink");
    } else if (pSink->sinkType() == SERVER_SINK) {
        if (!m_LoopbackServerSink.nil())
            log_task_line("Server loopback apartment sink is already added.");
        else
            log_task_line("Server loopback apartment sink should not be added in function %s.",
                          "addApartmentSink");
    }
}

void CApartment::removeApartmentSink(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    const bool bRtConnection = pSink->getRTConnection();
    std::string remoteUrl;
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);

    // Only the link itself is removed: a peer that closed and at once came
    // back under the same URL may already have its new link filed in the
    // old one's place, and the old link's late close must not take it.
    if (pSink->getLoopbackType() != NONE_LOOPBACK_TYPE) {
        CReference<IApartmentSink> client, server;
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            if (m_LoopbackClientSink != pSink && m_LoopbackServerSink != pSink) return;
            m_strLoopbackApartmentUrl.clear();
            client = m_LoopbackClientSink;
            server = m_LoopbackServerSink;
            if (!client.nil()) unwatchLink(client);
            if (!server.nil()) unwatchLink(server);
            m_LoopbackClientSink = nullptr;
            m_LoopbackServerSink = nullptr;
        }
        log_task_line("Loopback apartment sink is removed.");
        return;
    }

    CReference<IApartmentSink> removed;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(remoteUrl);
    if (it == map.end() || it->second != pSink) return;
    removed = it->second;
    unwatchLink(removed);
    map.erase(it);
}

bool CApartment::hasConnection(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl)) return true;
    return sinkMap(bRtConnection).count(std::string_view(strRemoteApartmentUrl)) != 0;
}

bool CApartment::disconnectApartment(const char* strRemoteApartmentUrl, bool bRtConnection) {
    if (strRemoteApartmentUrl == nullptr) return false;
    CReference<IApartmentSink> first, second;  // released after the unlock
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl)) {
        m_strLoopbackApartmentUrl.clear();
        first = m_LoopbackClientSink;
        second = m_LoopbackServerSink;
        if (!first.nil()) unwatchLink(first);
        if (!second.nil()) unwatchLink(second);
        m_LoopbackClientSink = nullptr;
        m_LoopbackServerSink = nullptr;
        return true;
    }
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(strRemoteApartmentUrl);
    if (it == map.end()) return false;
    first = it->second;
    unwatchLink(first);
    map.erase(it);
    return true;
}

bool CApartment::localApartmentUrl(const char* strRemoteApartmentUrl, bool bRtConnection,
                                   char* strLocalApartmentUrl, DWORD& dwLen) {
    if (strRemoteApartmentUrl == nullptr) return false;
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    if (loopbackApartment(strRemoteApartmentUrl))
        return !m_LoopbackClientSink.nil() &&
               m_LoopbackClientSink->getLocalApartmentUrl(strLocalApartmentUrl, dwLen);
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(strRemoteApartmentUrl);
    if (it == map.end()) return false;
    return it->second->getLocalApartmentUrl(strLocalApartmentUrl, dwLen);
}

void CApartment::onConnectionClosed(IApartmentSink* pSink) {
    if (pSink == nullptr) return;
    std::string remoteUrl;
    CApartmentSinkHelper::getRemoteApartmentUrl(pSink, remoteUrl);
    {
        TAutoMutex<OS::TRecursiveMutex> lock(&m_NodeManageMutex);
        // A node's callback may destroy or create nodes (the mutex is
        // recursive): walk a counted copy, never the map itself.
        std::vector<CReference<IApartmentNode>> nodes;
        nodes.reserve(m_ApartmentNodeMap.size());
        for (auto& entry : m_ApartmentNodeMap)
            if (!entry.second.nil()) nodes.push_back(entry.second);
        for (auto& node : nodes) node->notifyApartmentOffline(remoteUrl.c_str());
    }
    removeApartmentSink(pSink);
}

void CApartment::onAddConnection(IApartmentServerSink* pServerSink) {
    CReference<IApartmentServerSink> serverSink(pServerSink);
    if (serverSink.nil()) return;
    CReference<IApartmentSink> sink(asIApartmentSink(serverSink));
    bool bRtConnection = false;
    if (sink.nil() || !serverSink->waitRemoteConnectionInfo(CONNECTION_INFO_TIMEOUT_MS, bRtConnection))
        return;  // the connection is dropped with the last references
    sink->setRTConnection(bRtConnection);
    std::string localUrl, remoteUrl;
    CApartmentSinkHelper::getLocalApartmentUrl(sink, localUrl);
    CApartmentSinkHelper::getRemoteApartmentUrl(sink, remoteUrl);
    if (localUrl == remoteUrl) {
        sink->setLoopbackType(SERVER_LOOPBACK_TYPE);
        {
            TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
            // Loopback sinks are read by the non-real-time thread.
            if (!m_LoopbackServerSink.nil() || !watchLink(sink, false)) return;
            m_LoopbackServerSink = sink;
            log_task_line("Detected server loopback interface changed(%s---->%s).",
                          localUrl.c_str(), remoteUrl.c_str());
        }
        return;
    }
    addApartmentSink(sink);
}
CReference<IApartmentSink> CApartment::findLink(const char* strRemoteApartmentUrl,
                                                bool bRtConnection, bool* pbLoopback) {
    TAutoMutex<OS::TBaseMutex> lock(&m_ConnectionManageMutex);
    return linkLocked(strRemoteApartmentUrl, bRtConnection, pbLoopback);
}

CReference<IApartmentSink> CApartment::linkLocked(const char* strRemoteApartmentUrl,
                                                  bool bRtConnection, bool* pbLoopback) {
    if (loopbackApartment(strRemoteApartmentUrl)) {
        if (pbLoopback != nullptr) *pbLoopback = true;
        return m_LoopbackClientSink;
    }
    if (strRemoteApartmentUrl == nullptr) return CReference<IApartmentSink>();
    SinkMap& map = sinkMap(bRtConnection);
    auto it = map.find(std::string_view(strRemoteApartmentUrl));
    return it == map.end() ? CReference<IApartmentSink>() : it->second;
}

CReference<IApartmentSink> CApartment::linkOrConnect(const char* strRemoteApartmentUrl,
                                                     bool bRtConnection) {
    CReference<IApartmentSink> link = findLink(strRemoteApartmentUrl, bRtConnection);
    if (!link.nil() || !connectApartment(strRemoteApartmentUrl, bRtConnection)) return link;
    return findLink(strRemoteApartmentUrl, bRtConnection);
}
