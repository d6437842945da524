#include <gtest/gtest.h>

#include "GroundKit/Base/Stub.h"
#include "GroundKit/Reference/Reference.h"

namespace {
class ITestThing : public IBase {
public:
    static const char* interfaceName() { return "ITestThing"; }
    virtual int value() = 0;
};
class CTestThing : public TRootStub<ITestThing> {
public:
    int value() override { return 7; }
};
}  // namespace

TEST(Reference, AdoptAndRelease) {
    CReference<ITestThing> ref(new CTestThing);
    EXPECT_EQ(ref->value(), 7);
    EXPECT_EQ(ref.release(), 0u);
    EXPECT_TRUE(ref.nil());
}
