// Back-pressure from an apartment's queues to its sockets.
//
// CQueueBudget counts the bytes of received messages that wait in an
// apartment's queues (the main queue and the cache queue), in all; each
// link's CLinkBacklog counts its own share. A frame is charged when the
// communication thread makes it a message and discharged when the frame
// goes (after its dispatch). The thread that serves a link holds it back
// (stops reading it, so that the kernel's flow control slows the sender)
// while the link is over its bound or the total over its own, and takes it
// up again once the dispatcher has brought what held it below half: a link
// held for its own backlog when that is at most half its bound, a link
// held for the total when the total is at most half its bound. Nothing is
// dropped and nothing reordered. Frames of real-time links never wait in a
// queue and are never charged.
//
// Bytes charged per message: its payload and MESSAGE_OVERHEAD, so that a
// flood of empty frames is bounded too.
//
// Threads: charge and the hold decisions on the serving thread; discharge
// on whichever thread releases the frame. All counters are atomic.
#ifndef APARTMENT_TRANSPORT_QUEUEBUDGET_H
#define APARTMENT_TRANSPORT_QUEUEBUDGET_H

#include <atomic>
#include <cstddef>
#include <memory>

class CQueueBudget {
public:
    static constexpr size_t DEFAULT_PER_LINK = 16u << 20;
    static constexpr size_t DEFAULT_TOTAL = 256u << 20;
    static constexpr size_t MESSAGE_OVERHEAD = 64;

    CQueueBudget(size_t perLink, size_t total) : m_perLink(perLink), m_total(total) {}

    size_t perLink() const { return m_perLink; }
    size_t total() const { return m_total; }
    size_t queued() const { return m_queued.load(std::memory_order_relaxed); }
    bool overTotal() const { return queued() >= m_total; }

    // Links held back now; while any is, a discharge that may let one go
    // raises takeResumeWanted() (for the dispatcher to wake the serving
    // thread).
    std::atomic<unsigned int> m_heldLinks{0};
    bool takeResumeWanted() {
        return m_resumeWanted.load(std::memory_order_relaxed) && m_resumeWanted.exchange(false);
    }
    // Raised by a dispatcher that is about to wait on an empty main queue
    // while links are held: what holds them waits in the cache queue (re-
    // entry refused), and reading on is the only way to what it waits for.
    std::atomic<bool> m_liftHolds{false};

private:
    friend class CLinkBacklog;
    const size_t m_perLink;
    const size_t m_total;
    std::atomic<size_t> m_queued{0};
    std::atomic<bool> m_resumeWanted{false};
};

class CLinkBacklog {
public:
    // Why a link is held back (bits).
    enum { HELD_FOR_LINK = 1, HELD_FOR_TOTAL = 2 };

    explicit CLinkBacklog(std::shared_ptr<CQueueBudget> budget) : m_budget(std::move(budget)) {}

    void charge(size_t bytes) {
        m_queued.fetch_add(bytes, std::memory_order_relaxed);
        m_budget->m_queued.fetch_add(bytes, std::memory_order_relaxed);
    }
    void discharge(size_t bytes) {
        const size_t link = m_queued.fetch_sub(bytes, std::memory_order_relaxed) - bytes;
        const size_t all = m_budget->m_queued.fetch_sub(bytes, std::memory_order_relaxed) - bytes;
        if (m_budget->m_heldLinks.load(std::memory_order_relaxed) != 0 &&
            (link <= m_budget->m_perLink / 2 || all <= m_budget->m_total / 2))
            m_budget->m_resumeWanted.store(true, std::memory_order_relaxed);
    }
    // Why the link must not be read now (0: it may be).
    int holdReasons() const {
        return (m_queued.load(std::memory_order_relaxed) >= m_budget->m_perLink ? HELD_FOR_LINK : 0) |
               (m_budget->overTotal() ? HELD_FOR_TOTAL : 0);
    }
    // Whether a link held for `reasons` may be read again.
    bool mayResume(int reasons) const {
        const size_t link = m_queued.load(std::memory_order_relaxed);
        const size_t all = m_budget->queued();
        const bool linkOk = (reasons & HELD_FOR_LINK) ? link <= m_budget->m_perLink / 2
                                                      : link < m_budget->m_perLink;
        const bool totalOk = (reasons & HELD_FOR_TOTAL) ? all <= m_budget->m_total / 2
                                                        : all < m_budget->m_total;
        return linkOk && totalOk;
    }
    size_t queued() const { return m_queued.load(std::memory_order_relaxed); }

private:
    std::shared_ptr<CQueueBudget> m_budget;
    std::atomic<size_t> m_queued{0};
};

#endif
