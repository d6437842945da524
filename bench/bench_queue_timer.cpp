// Message queue throughput between two threads, and timer accuracy under
// load: many periodic timers re-armed on dispatch, as an apartment does.
//
//   bench_queue_timer --benchmark_filter=Queue
//   bench_queue_timer --benchmark_filter=Timer
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "ApartmentTimerManager.h"
#include "GroundKit/OS/OS_Clock.h"
#include "MessageQueue.h"
#include "TcpApartment.h"

namespace {

double microsBetween(const timespec& from, const timespec& to) {
    return static_cast<double>(to.tv_sec - from.tv_sec) * 1e6 +
           static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e3;
}

// One producer thread pushes, the benchmark thread pops with an unlimited
// blocking pop. Items/s counts messages that made the whole trip.
void BM_QueuePushPopTwoThreads(benchmark::State& state) {
    const int64_t kMessages = state.range(0);
    for (auto _ : state) {
        CMessageQueue queue;
        std::thread producer([&queue, kMessages] {
            APARTMENT_TMSG msg{};
            msg.m_intMsg = NORMAL_FRAME_ARRIVED;
            for (int64_t i = 0; i < kMessages; ++i) {
                msg.lParam = static_cast<LPARAM>(i);
                queue.push(msg);
            }
        });
        APARTMENT_TMSG msg{};
        for (int64_t i = 0; i < kMessages; ++i) {
            if (!queue.pop(msg)) state.SkipWithError("pop failed");
        }
        producer.join();
        benchmark::DoNotOptimize(msg);
    }
    state.SetItemsProcessed(state.iterations() * kMessages);
}
BENCHMARK(BM_QueuePushPopTwoThreads)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

class BenchTimerManager : public CApartmentTimerManager {};

// N periodic timers of P ms, all registered at once (so due together) or,
// with the third argument 1, with their first firings spread over one
// period in 1 ms steps. The benchmark thread plays the dispatcher: it
// pops each firing, records how late it arrived against its due time, and
// re-arms the timer with generateNextTimer, which schedules the next firing
// one period after the last due time (or now, when that is already past).
// Lateness is measured when the dispatcher receives the firing, so it
// includes the queue hand-off.
void BM_TimerLatenessPeriodic(benchmark::State& state) {
    const unsigned int kTimers = static_cast<unsigned int>(state.range(0));
    const unsigned int kInterval = static_cast<unsigned int>(state.range(1));
    const bool bSpread = state.range(2) != 0;
    const long kRunMs = 3000;
    std::vector<double> lateness;
    for (auto _ : state) {
        lateness.clear();
        lateness.reserve(static_cast<size_t>(kRunMs / kInterval + 1) * kTimers);
        // An apartment that does not listen collects the firings.
        IApartment* apartment = new CTcpApartment();
        auto* manager = new BenchTimerManager();
        std::vector<timespec> due(kTimers + 1);
        for (unsigned int i = 0; i < kTimers; ++i) {
            APARTMENT_TIMER_INFO info{};
            apartment->addRef();
            info.m_Apartment = apartment;
            info.m_uintLagTime = kInterval + (bSpread ? i % kInterval : 0);
            info.m_uintInterval = kInterval;
            const unsigned int id = manager->setTimer(info);
            if (id >= due.size()) {
                state.SkipWithError("unexpected timer id");
                break;
            }
            due[id] = info.m_tvNextTriggerTime;
        }
        const timespec end = OS::Clock::monotonicDeadline(kInterval + kRunMs);
        APARTMENT_TMSG msg{};
        while (apartment->getMessage(msg, OS::Clock::monotonicDeadline(200))) {
            const timespec now = OS::Clock::monotonicNow();
            const unsigned int id = static_cast<unsigned int>(msg.lParam);
            lateness.push_back(microsBetween(due[id], now));
            if (!OS::Clock::isEarlier(now, end)) break;
            timespec next = due[id];
            OS::Clock::addMilliseconds(&next, kInterval);
            const timespec rearm = OS::Clock::monotonicNow();
            if (OS::Clock::isEarlier(next, rearm)) next = rearm;
            due[id] = next;
            manager->generateNextTimer(id);
        }
        delete manager;
        apartment->releaseRef();
    }
    if (lateness.empty()) {
        state.SkipWithError("no firing");
        return;
    }
    std::sort(lateness.begin(), lateness.end());
    const double median = lateness[lateness.size() / 2];
    const double p99 = lateness[lateness.size() * 99 / 100];
    state.counters["firings"] = static_cast<double>(lateness.size());
    state.counters["firings_per_s"] =
        benchmark::Counter(static_cast<double>(lateness.size()), benchmark::Counter::kIsRate);
    state.counters["median_late_us"] = median;
    state.counters["p99_late_us"] = p99;
    state.counters["max_late_us"] = lateness.back();
    std::printf("timers=%u interval=%ums %s firings=%zu median_late=%.1fus p99_late=%.1fus max_late=%.1fus\n",
                kTimers, kInterval, bSpread ? "spread" : "together", lateness.size(), median, p99, lateness.back());
}
BENCHMARK(BM_TimerLatenessPeriodic)
    ->Args({10000, 10, 0})
    ->Args({10000, 10, 1})
    ->Args({1000, 10, 0})
    ->Args({1000, 10, 1})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
