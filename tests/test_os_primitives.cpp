#include <gtest/gtest.h>

#include "GroundKit/OS/OS_Clock.h"
#include "GroundKit/OS/OS_Condition.h"

TEST(OsPrimitives, RecursiveMutex) {
    OS::TRecursiveMutex m;
    m.lock();
    m.lock();
    m.unlock();
    m.unlock();
}
