// CLinkPoller: the readiness set of one thread that serves many links.
//
// A link is registered once, when it is filed, and forgotten when it goes:
// a wait then costs what the ready links cost, whatever the number of idle
// ones. The set is keyed by a number of its own, never by the sink's
// address, so that a readiness event of a link already forgotten (and whose
// memory may hold a new link) finds nothing instead of the wrong link.
//
// The set does not count its sinks: whoever files a link holds it (the
// apartment's sink maps) and must unwatch it before that reference goes,
// so that wait() can take a reference of a sink it still knows. The
// descriptor of a watched sink must not be closed before unwatch (a closed
// descriptor whose number is reused would otherwise be forgotten in the
// new link's place).
//
// Threads: watch, unwatch, pause, resume, wantWrite and wake from any
// thread (wantWrite also under a sink's send mutex); wait and lookup from
// the thread that serves the links, one at a time (a communication thread,
// or a pumping thread while it leads in its place), and lookup from any
// thread that holds the sink. One mutex, a leaf, guards the registry;
// nothing is released or called out under it.
#ifndef APARTMENT_TRANSPORT_LINKPOLLER_H
#define APARTMENT_TRANSPORT_LINKPOLLER_H

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "GroundKit/OS/OS_Mutex.h"
#include "IApartmentSink.h"

class CLinkPoller {
public:
    // A ready link: the sink carries one reference for the caller; events
    // are the OS_POLLER_* bits reported (0 from lookup); context is what
    // the watcher gave at watch, so that it needs no cast per report.
    struct Link {
        IApartmentSink* sink;
        uint64_t key;
        uint32_t events;
        void* context;
    };

    CLinkPoller();
    ~CLinkPoller();
    CLinkPoller(const CLinkPoller&) = delete;
    CLinkPoller& operator=(const CLinkPoller&) = delete;

    // False when the system gave no readiness set or no wake-up: nothing
    // can be watched then.
    bool valid() const { return m_intPoller >= 0 && m_intWake >= 0; }

    // Registers the sink's descriptor for reading. False (nothing
    // registered) for a sink already watched here, a negative descriptor
    // or a refusal of the system.
    bool watch(IApartmentSink* pSink, int fd, void* context = nullptr);
    // Forgets the sink, if watched. Its descriptor must still be open.
    void unwatch(IApartmentSink* pSink);
    // Stops and restarts reporting a watched link (a link held back keeps
    // its place but is not reported however much it has to read).
    bool pause(uint64_t key);
    bool resume(uint64_t key);
    // What a watched link is reported for: bytes to read, room to write
    // (a TLS handshake may wait for either). False when it is not watched.
    bool setInterest(IApartmentSink* pSink, bool bRead, bool bWrite);
    // Whether a watched link is also reported when its socket has room to
    // write (a send queue waiting for the socket), beside what pause and
    // resume say about reading. False when it is not watched.
    bool wantWrite(IApartmentSink* pSink, bool bWrite);
    // Reports a watched link on the next wait (and ends a wait under way)
    // although its socket shows nothing: bytes were read ahead of the
    // socket's readiness by whoever held it before (a TLS session).
    void nudge(IApartmentSink* pSink);

    // Waits up to timeoutMs (0: a look without waiting) and appends the
    // ready links to `ready`, each with a reference. Returns false when
    // the wait itself failed; a wake-up ends the wait with nothing more.
    bool wait(int timeoutMs, std::vector<Link>& ready);
    // The link of a key still watched, with a reference, into `link`.
    bool lookup(uint64_t key, Link& link);
    // Ends the wait in progress, or the next one, at once. Any thread.
    void wake();
    // Links watched.
    size_t size() const;

private:
    struct Entry {
        IApartmentSink* sink;
        void* context;
        int fd;
        bool paused;
        bool write;
    };
    // The interest of an entry, from its paused and write flags.
    bool apply(uint64_t key, const Entry& entry);
    mutable OS::TBaseMutex m_Mutex;
    std::unordered_map<uint64_t, Entry> m_Entries;
    std::unordered_map<const IApartmentSink*, uint64_t> m_Keys;
    std::vector<uint64_t> m_Nudged;  // keys for the next wait, see nudge
    uint64_t m_uintNextKey;
    int m_intPoller;
    int m_intWake;
};

#endif
