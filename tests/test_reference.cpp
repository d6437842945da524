// The interface object model: root and extension stubs, their name lookup
// and counting, and the CReference holder's ownership rules.
#include <gtest/gtest.h>

#include <new>

#include "GroundKit/Base/Stub.h"
#include "GroundKit/Reference/Reference.h"

namespace {

class ITestPrimary : public IBase {
public:
    static const char* interfaceName() { return "ITestPrimary"; }
    virtual int primary() = 0;
};

class ITestSecondary : public IBase {
public:
    static const char* interfaceName() { return "ITestSecondary"; }
    virtual int secondary() = 0;
};

int g_finalReleases = 0;
int g_destructions = 0;
bool g_finalReleaseBeforeDestructor = false;

// A root stub whose last release is observable.
class CCounted : public TRootStub<ITestPrimary> {
public:
    explicit CCounted(int value = 7) : m_intValue(value) {}
    ~CCounted() override { ++g_destructions; }
    int primary() override { return m_intValue; }
    ULONG refs() const { return m_dwRef; }

protected:
    void onFinalRelease() override {
        ++g_finalReleases;
        g_finalReleaseBeforeDestructor = (g_destructions == 0);
    }

private:
    int m_intValue;
};

// An extension stub adding a second interface over the root stub.
class CBoth : public TExtensionStub<CCounted, ITestSecondary> {
public:
    using TExtensionStub::TExtensionStub;
    int secondary() override { return 2; }
};

class ReferenceTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_finalReleases = 0;
        g_destructions = 0;
        g_finalReleaseBeforeDestructor = false;
    }
};

using StubTest = ReferenceTest;

void* const kUntouched = reinterpret_cast<void*>(0x1234);

}  // namespace

TEST_F(ReferenceTest, LastHolderDestroysOnceAfterFinalRelease) {
    auto* object = new CCounted;
    EXPECT_EQ(object->refs(), 1u);
    {
        CReference<ITestPrimary> holder(object);
        EXPECT_EQ(object->refs(), 1u);  // adopted, not added
        EXPECT_EQ(holder->primary(), 7);
    }
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);
    EXPECT_TRUE(g_finalReleaseBeforeDestructor);
}

TEST_F(ReferenceTest, CopiesAndAssignmentsCountExactly) {
    auto* first = new CCounted(1);
    auto* second = new CCounted(2);
    {
        CReference<ITestPrimary> a(first);
        CReference<ITestPrimary> b(a);
        EXPECT_EQ(first->refs(), 2u);
        CReference<ITestPrimary> c;
        c = a;
        EXPECT_EQ(first->refs(), 3u);
        c = b;  // same object: +1 then -1
        EXPECT_EQ(first->refs(), 3u);

        CReference<ITestPrimary> d(second);
        c = d;
        EXPECT_EQ(first->refs(), 2u);
        EXPECT_EQ(second->refs(), 2u);
        b = new CCounted(3);  // adopting assignment releases the old one
        EXPECT_EQ(first->refs(), 1u);
        EXPECT_EQ(b->primary(), 3);
        EXPECT_EQ(g_destructions, 0);
    }
    EXPECT_EQ(g_finalReleases, 3);
    EXPECT_EQ(g_destructions, 3);
}

TEST_F(ReferenceTest, SelfAssignmentOfLastHolderKeepsObject) {
    CReference<ITestPrimary> holder(new CCounted);
    CReference<ITestPrimary>& alias = holder;
    holder = alias;
    EXPECT_EQ(g_destructions, 0);
    EXPECT_EQ(holder->primary(), 7);
}

// The adopting assignment releases before it adopts, so handing a holder the
// pointer it already owns destroys the object and leaves the holder dangling.
// The holder lives in raw storage and is never destroyed.
TEST_F(ReferenceTest, AdoptingAssignmentOfHeldPointerDestroysObject) {
    alignas(CReference<ITestPrimary>) unsigned char storage[sizeof(CReference<ITestPrimary>)];
    auto* holder = new (storage) CReference<ITestPrimary>(new CCounted);
    ITestPrimary* raw = *holder;
    *holder = raw;
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);
    EXPECT_FALSE(holder->nil());  // dangling; must not be used or destroyed
}

TEST_F(ReferenceTest, ReleaseEmptiesHolderFirst) {
    CReference<ITestPrimary> empty;
    EXPECT_EQ(empty.release(), 0u);
    EXPECT_TRUE(empty.nil());

    CReference<ITestPrimary> a(new CCounted);
    CReference<ITestPrimary> b(a);
    EXPECT_EQ(a.release(), 1u);
    EXPECT_TRUE(a.nil());
    EXPECT_EQ(g_destructions, 0);
    EXPECT_EQ(b.release(), 0u);
    EXPECT_TRUE(b.nil());
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);
}

TEST_F(StubTest, RootStubAnswersExactNamesOnly) {
    auto* object = new CCounted;
    for (const char* name : {"ibase", "IBASE", "itestprimary", "ITestPrimary ", "ITestSecondary",
                             "", static_cast<const char*>(nullptr)}) {
        void* out = kUntouched;
        EXPECT_FALSE(object->queryInterface(name, &out)) << (name ? name : "(null)");
        EXPECT_EQ(out, kUntouched);
        EXPECT_EQ(object->refs(), 1u);
    }
    void* viaBase = nullptr;
    void* viaName = nullptr;
    ASSERT_TRUE(object->queryInterface("IBase", &viaBase));
    EXPECT_EQ(object->refs(), 2u);
    ASSERT_TRUE(object->queryInterface("ITestPrimary", &viaName));
    EXPECT_EQ(object->refs(), 3u);
    EXPECT_EQ(viaBase, static_cast<ITestPrimary*>(object));
    EXPECT_EQ(viaBase, viaName);
    EXPECT_EQ(object->releaseRef(), 2u);
    EXPECT_EQ(object->releaseRef(), 1u);
    EXPECT_EQ(g_finalReleases, 0);
    EXPECT_EQ(object->releaseRef(), 0u);
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);
}

TEST_F(StubTest, ExtensionStubSharesOneCounterAcrossSubObjects) {
    auto* object = new CBoth(5);  // constructor inherited from the base
    void* out = kUntouched;
    EXPECT_FALSE(object->queryInterface("itestsecondary", &out));
    EXPECT_EQ(out, kUntouched);
    EXPECT_EQ(object->refs(), 1u);

    void* second = nullptr;
    void* base = nullptr;
    void* first = nullptr;
    ASSERT_TRUE(object->queryInterface("ITestSecondary", &second));
    ASSERT_TRUE(object->queryInterface("IBase", &base));
    ASSERT_TRUE(object->queryInterface("ITestPrimary", &first));
    EXPECT_EQ(object->refs(), 4u);
    EXPECT_EQ(second, static_cast<ITestSecondary*>(object));
    EXPECT_NE(second, base);
    EXPECT_EQ(base, static_cast<ITestPrimary*>(object));
    EXPECT_EQ(base, first);

    auto* viaSecond = static_cast<ITestSecondary*>(second);
    auto* viaFirst = static_cast<ITestPrimary*>(first);
    EXPECT_EQ(viaSecond->secondary(), 2);
    EXPECT_EQ(viaFirst->primary(), 5);
    EXPECT_EQ(viaSecond->addRef(), 5u);
    EXPECT_EQ(viaFirst->releaseRef(), 4u);
    EXPECT_EQ(viaFirst->releaseRef(), 3u);
    EXPECT_EQ(viaFirst->releaseRef(), 2u);
    EXPECT_EQ(viaSecond->releaseRef(), 1u);
    EXPECT_EQ(g_finalReleases, 0);
    // The last release arrives through the second sub-object and still
    // destroys the whole object.
    EXPECT_EQ(viaSecond->releaseRef(), 0u);
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);
}

TEST_F(StubTest, QueryInterfaceAsAddsOneOrReturnsNull) {
    EXPECT_EQ(queryInterfaceAs<ITestSecondary>(nullptr), nullptr);

    CReference<ITestPrimary> plain(new CCounted);
    EXPECT_EQ(queryInterfaceAs<ITestSecondary>(plain), nullptr);
    EXPECT_EQ(static_cast<CCounted*>(static_cast<ITestPrimary*>(plain))->refs(), 1u);

    auto* object = new CBoth;
    CReference<ITestPrimary> holder(object);
    CReference<ITestSecondary> view(queryInterfaceAs<ITestSecondary>(holder));
    ASSERT_FALSE(view.nil());
    EXPECT_EQ(view->secondary(), 2);
    EXPECT_EQ(object->refs(), 2u);
    holder.release();
    EXPECT_EQ(g_destructions, 0);
    EXPECT_EQ(view.release(), 0u);
    EXPECT_EQ(g_destructions, 1);
}
