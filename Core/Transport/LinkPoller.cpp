#include "LinkPoller.h"

#include "os_poller.h"

namespace {
typedef TAutoMutex<OS::TBaseMutex> Lock;
// The wake-up's key; links count from 1.
const uint64_t WAKE_KEY = 0;
// Events one wait takes at most; the rest are reported by the next wait.
const int EVENTS_PER_WAIT = 256;
}  // namespace

CLinkPoller::CLinkPoller()
    : m_uintNextKey(1), m_intPoller(os_poller_create()), m_intWake(os_wake_create()) {
    if (m_intPoller >= 0 && m_intWake >= 0 &&
        os_poller_add(m_intPoller, m_intWake, OS_POLLER_READ, WAKE_KEY) != 0) {
        os_wake_close(m_intWake);
        m_intWake = -1;
    }
}

CLinkPoller::~CLinkPoller() {
    os_wake_close(m_intWake);
    os_poller_close(m_intPoller);
}

bool CLinkPoller::watch(IApartmentSink* pSink, int fd, void* context) {
    if (pSink == nullptr || fd < 0 || !valid()) return false;
    Lock lock(&m_Mutex);
    if (m_Keys.count(pSink) != 0) return false;
    const uint64_t key = m_uintNextKey++;
    m_Entries.emplace(key, Entry{pSink, context, fd, false, false});
    m_Keys.emplace(pSink, key);
    if (os_poller_add(m_intPoller, fd, OS_POLLER_READ, key) != 0) {
        m_Entries.erase(key);
        m_Keys.erase(pSink);
        return false;
    }
    return true;
}

void CLinkPoller::unwatch(IApartmentSink* pSink) {
    Lock lock(&m_Mutex);
    auto it = m_Keys.find(pSink);
    if (it == m_Keys.end()) return;
    auto entry = m_Entries.find(it->second);
    os_poller_remove(m_intPoller, entry->second.fd);
    m_Entries.erase(entry);
    m_Keys.erase(it);
}

bool CLinkPoller::apply(uint64_t key, const Entry& entry) {
    const unsigned int interest =
        (entry.paused ? 0u : OS_POLLER_READ) | (entry.write ? OS_POLLER_WRITE : 0u);
    return os_poller_modify(m_intPoller, entry.fd, interest, key) == 0;
}

bool CLinkPoller::pause(uint64_t key) {
    Lock lock(&m_Mutex);
    auto it = m_Entries.find(key);
    if (it == m_Entries.end()) return false;
    it->second.paused = true;
    return apply(key, it->second);
}

bool CLinkPoller::resume(uint64_t key) {
    Lock lock(&m_Mutex);
    auto it = m_Entries.find(key);
    if (it == m_Entries.end()) return false;
    it->second.paused = false;
    return apply(key, it->second);
}

bool CLinkPoller::wantWrite(IApartmentSink* pSink, bool bWrite) {
    Lock lock(&m_Mutex);
    auto it = m_Keys.find(pSink);
    if (it == m_Keys.end()) return false;
    Entry& entry = m_Entries[it->second];
    if (entry.write == bWrite) return true;
    entry.write = bWrite;
    return apply(it->second, entry);
}

bool CLinkPoller::setInterest(IApartmentSink* pSink, bool bRead, bool bWrite) {
    Lock lock(&m_Mutex);
    auto it = m_Keys.find(pSink);
    if (it == m_Keys.end()) return false;
    const unsigned int interest = (bRead ? OS_POLLER_READ : 0u) | (bWrite ? OS_POLLER_WRITE : 0u);
    return os_poller_modify(m_intPoller, m_Entries[it->second].fd, interest, it->second) == 0;
}

void CLinkPoller::nudge(IApartmentSink* pSink) {
    {
        Lock lock(&m_Mutex);
        auto it = m_Keys.find(pSink);
        if (it == m_Keys.end()) return;
        m_Nudged.push_back(it->second);
    }
    wake();
}

bool CLinkPoller::wait(int timeoutMs, std::vector<Link>& ready) {
    os_poller_event events[EVENTS_PER_WAIT];
    const int count = os_poller_wait(m_intPoller, events, EVENTS_PER_WAIT, timeoutMs);
    if (count < 0) return false;
    Lock lock(&m_Mutex);
    for (int i = 0; i < count; ++i) {
        if (events[i].key == WAKE_KEY) {
            os_wake_drain(m_intWake);
            continue;
        }
        auto it = m_Entries.find(events[i].key);
        if (it == m_Entries.end()) continue;  // forgotten since the kernel reported it
        it->second.sink->addRef();
        ready.push_back(Link{it->second.sink, events[i].key, events[i].events, it->second.context});
    }
    for (uint64_t key : m_Nudged) {
        auto it = m_Entries.find(key);
        if (it == m_Entries.end()) continue;
        bool reported = false;
        for (int i = 0; i < count && !reported; ++i) reported = events[i].key == key;
        if (reported) continue;
        it->second.sink->addRef();
        ready.push_back(Link{it->second.sink, key, OS_POLLER_READ, it->second.context});
    }
    m_Nudged.clear();
    return true;
}

bool CLinkPoller::lookup(uint64_t key, Link& link) {
    Lock lock(&m_Mutex);
    auto it = m_Entries.find(key);
    if (it == m_Entries.end()) return false;
    it->second.sink->addRef();
    link = Link{it->second.sink, key, 0, it->second.context};
    return true;
}

void CLinkPoller::wake() { os_wake_signal(m_intWake); }

size_t CLinkPoller::size() const {
    Lock lock(&m_Mutex);
    return m_Entries.size();
}
