// CEndianType: conversions, and its cached processor byte order read by
// many threads at once (every sender converts frame headers).
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "FieldKit/Environment/EndianType.h"

TEST(EndianType, NetworkOrderIsBigEndianAndTheRoundTripIsExact) {
    unsigned int value = 0x01020304u;
    unsigned char bytes[4];
    unsigned int wire = value;
    CEndianType::hostToNetwork(wire);
    std::memcpy(bytes, &wire, sizeof bytes);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[3], 4);
    CEndianType::networkToHost(wire);
    EXPECT_EQ(wire, value);
}

// Regression: the cached byte order was a plain static written by whichever
// thread came first, a data race under ThreadSanitizer when two senders
// converted their first header at the same time.
TEST(EndianType, FirstUseFromManyThreadsAtOnceIsRaceFree) {
    std::vector<std::thread> threads;
    std::vector<int> seen(8, -2);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&seen, i] { seen[i] = CEndianType::getCPUEndianType(); });
    for (auto& t : threads) t.join();
    for (int v : seen) EXPECT_EQ(v, seen[0]);
    EXPECT_NE(seen[0], INVALID_ENDIAN_TYPE);
}
