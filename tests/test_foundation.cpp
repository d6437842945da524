// The foundation under the library: the interface object model and the
// CReference holder, the string helpers and their size protocol, the
// serialisation streams and byte order, the OS primitives over the platform
// layer (locks, conditions, threads, atomics, clocks, the log task) and the
// socket wrapper.
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/wait.h>

#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <set>

#include "FieldKit/BoundedStream/BoundedStream.h"
#include "FieldKit/Environment/EndianType.h"
#include "FieldKit/Socket/Socket.h"
#include "GroundKit/OS/OS_CLibrary.h"
#include "GroundKit/OS/OS_Condition.h"
#include "GroundKit/OS/OS_Mutex.h"
#include "GroundKit/OS/OS_Thread.h"
#include "GroundKit/OS/OS_UTF8Helper.h"
#include "GroundKit/StringAssistant/StringAssistant.h"
#include "os_log.h"
#include "support.h"

using namespace aptest;

// ---------------------------------------------------------- object model

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
bool g_finalReleaseBeforeDestructor = true;

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
        g_finalReleaseBeforeDestructor &= g_finalReleases == g_destructions + 1;
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
        g_finalReleaseBeforeDestructor = true;
    }
};

void* const kUntouched = reinterpret_cast<void*>(0x1234);

}  // namespace

// A holder adopts the pointer it is built from or assigned, adds one when
// copied (also onto the object it holds), empties itself before it drops
// its reference, and the last drop runs onFinalRelease, then the destructor.
TEST_F(ReferenceTest, HoldersCountExactlyAndTheLastOneDestroysOnce) {
    auto* first = new CCounted(1);
    auto* second = new CCounted(2);
    {
        CReference<ITestPrimary> a(first);
        EXPECT_EQ(first->refs(), 1u);  // adopted, not added
        CReference<ITestPrimary> b(a), c;
        c = a;
        EXPECT_EQ(first->refs(), 3u);
        c = b;  // same object: +1 then -1
        CReference<ITestPrimary>& alias = c;
        c = alias;
        EXPECT_EQ(first->refs(), 3u);
        CReference<ITestPrimary> d(second);
        c = d;
        EXPECT_EQ(first->refs(), 2u);
        EXPECT_EQ(second->refs(), 2u);
        b = new CCounted(3);  // adopting assignment releases the old one
        EXPECT_EQ(first->refs(), 1u);
        CReference<ITestPrimary>& sole = b;
        b = sole;  // the last holder onto itself keeps the object
        EXPECT_EQ(g_destructions, 0);
        EXPECT_EQ(b->primary(), 3);
        EXPECT_EQ(c.release(), 1u);
        EXPECT_TRUE(c.nil());
        EXPECT_EQ(c.release(), 0u);
        EXPECT_EQ(g_destructions, 0);
        EXPECT_EQ(d.release(), 0u);
        EXPECT_EQ(g_destructions, 1);
    }
    EXPECT_EQ(g_finalReleases, 3);
    EXPECT_EQ(g_destructions, 3);
    EXPECT_TRUE(g_finalReleaseBeforeDestructor);
}

// Names are compared exactly; a hit adds a reference, a miss leaves the
// out-pointer and the count alone. An extension stub answers one more name
// and counts on its base's counter, whichever sub-object a call comes
// through, the last release too.
TEST_F(ReferenceTest, StubsAnswerExactNamesOnOneCounter) {
    auto* object = new CBoth(5);
    for (const char* name : {"ibase", "IBASE", "itestprimary", "ITestPrimary ", "itestsecondary",
                             "", static_cast<const char*>(nullptr)}) {
        void* out = kUntouched;
        EXPECT_FALSE(object->queryInterface(name, &out)) << (name ? name : "(null)");
        EXPECT_EQ(out, kUntouched);
    }
    EXPECT_EQ(object->refs(), 1u);
    void *second = nullptr, *base = nullptr, *first = nullptr;
    ASSERT_TRUE(object->queryInterface("ITestSecondary", &second));
    ASSERT_TRUE(object->queryInterface("IBase", &base));
    ASSERT_TRUE(object->queryInterface("ITestPrimary", &first));
    EXPECT_EQ(object->refs(), 4u);
    EXPECT_EQ(second, static_cast<ITestSecondary*>(object));
    EXPECT_EQ(base, static_cast<ITestPrimary*>(object));
    EXPECT_EQ(base, first);
    auto* viaSecond = static_cast<ITestSecondary*>(second);
    auto* viaFirst = static_cast<ITestPrimary*>(first);
    EXPECT_EQ(viaSecond->secondary() + viaFirst->primary(), 7);
    EXPECT_EQ(viaSecond->addRef(), 5u);
    for (ULONG left = 4; left > 1; --left) EXPECT_EQ(viaFirst->releaseRef(), left);
    EXPECT_EQ(viaSecond->releaseRef(), 1u);
    EXPECT_EQ(g_finalReleases, 0);
    EXPECT_EQ(viaSecond->releaseRef(), 0u);
    EXPECT_EQ(g_finalReleases, 1);
    EXPECT_EQ(g_destructions, 1);

    EXPECT_EQ(queryInterfaceAs<ITestSecondary>(nullptr), nullptr);
    CReference<ITestPrimary> plain(new CCounted);
    EXPECT_EQ(queryInterfaceAs<ITestSecondary>(plain), nullptr);
    EXPECT_EQ(static_cast<CCounted*>(static_cast<ITestPrimary*>(plain))->refs(), 1u);
    CReference<ITestPrimary> holder(new CBoth);
    CReference<ITestSecondary> view(queryInterfaceAs<ITestSecondary>(holder));
    ASSERT_FALSE(view.nil());
    EXPECT_EQ(view->secondary(), 2);
    holder.release();
    EXPECT_EQ(view.release(), 0u);
    EXPECT_EQ(g_destructions, 2);
}

// -------------------------------------------------------- string helpers

namespace {

int formattedLength(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int length = OS::CLibrary::String::getFormattedLength(format, ap);
    va_end(ap);
    return length;
}

std::string replace(const std::string& text, const std::string& from, const std::string& to,
                    bool all) {
    return CStringAssistant::replaceSTLString(text, from, to, all);
}

}  // namespace

// A null buffer asks for the length + 1; a buffer at least that large
// gets the text and its terminator (and nothing past it); a smaller one
// fails and changes nothing.
TEST(SizeProtocol, NullLargeEnoughAndShortBuffers) {
    unsigned long len = 99;
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("tcp://1.2.3.4:5", nullptr, len));
    EXPECT_EQ(len, 16u);
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("", nullptr, len));
    EXPECT_EQ(len, 1u);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    for (unsigned long short_ : {5ul, 0ul}) {
        len = short_;
        EXPECT_FALSE(CStringAssistant::getBaseStringFromSTLString(short_ ? "hello" : "", buffer, len));
        EXPECT_EQ(len, short_);
        EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(8, 'x'));
    }
    len = 6;
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("hello", buffer, len));
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(buffer[6], 'x');
    len = sizeof buffer;  // a larger buffer reports the size used
    EXPECT_TRUE(CStringAssistant::getBaseStringFromSTLString("", buffer, len));
    EXPECT_EQ(len, 1u);
}

TEST(Replace, FirstOrAllOccurrences) {
    const struct {
        const char *text, *from, *to;
        bool all;
        const char* result;
    } rows[] = {
        {"a-b-c", "-", "+", false, "a+b-c"}, {"a-b-c", "-", "+", true, "a+b+c"},
        {"a-b-c", "*", "+", true, "a-b-c"},  {"a-b-c", "-", "-", true, "a-b-c"},
        {"a-b-c", "", "", true, "a-b-c"},    {"", "-", "+", true, ""},
        {"a-b-c", "-", "<=>", true, "a<=>b<=>c"}, {"a<=>b<=>c", "<=>", "", true, "abc"},
        {"-a-", "-", "+", true, "+a+"},      {"-a-", "-", "+", false, "+a-"},
        {"-", "-", "long", true, "long"},    {"aaaa", "aa", "b", true, "bb"},
        {"aaa", "aa", "b", true, "ba"},
        // The search resumes after the replaced text.
        {"x.y", ".", "..", true, "x..y"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(replace(row.text, row.from, row.to, row.all), row.result)
            << row.text << " " << row.from << " " << row.to;
}

// Texts of any length come out whole; the platform's length counts the
// terminator; what cannot be rendered (in the C locale a wide character
// outside ASCII) is the empty string.
TEST(Format, TextsOfAnyLength) {
    EXPECT_EQ(formattedLength("%d.%d", 1, 10), 5);
    EXPECT_EQ(formattedLength(""), 1);
    EXPECT_EQ(formattedLength(nullptr), 0);
    for (size_t size : {1u, 255u, 256u, 257u, 1023u, 1024u, 1025u, 4095u, 4096u, 4097u, 10000u,
                        65535u, 65536u, 65537u}) {
        const std::string text(size, 'q');
        EXPECT_EQ(CStringAssistant::format("%s", text.c_str()), text) << size;
        EXPECT_EQ(CStringAssistant::format("%s|%u", text.c_str(), 42u), text + "|42") << size;
    }
    EXPECT_EQ(CStringAssistant::format("tcp://%s:%u", "127.0.0.1", 65535u), "tcp://127.0.0.1:65535");
    EXPECT_EQ(CStringAssistant::format("%s", ""), "");
    ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(formattedLength("%ls", L"\u00e9"), 0);
    EXPECT_EQ(CStringAssistant::format("%ls", L"\u00e9"), "");
}

TEST(Utf8Helper, CLocalePassesTextThrough) {
    ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    const std::string texts[] = {"", "plain ascii", "h\xc3\xa9llo \xe2\x82\xac \xf0\x9f\x98\x80"};
    for (const std::string& text : texts) {
        EXPECT_EQ(OS::UTF8Helper::oemFromUTF8(text.c_str()), text);
        EXPECT_EQ(OS::UTF8Helper::oemToUTF8(text.c_str()), text);
        EXPECT_EQ(OS::UTF8Helper::oemToUTF8(text), text);
    }
    EXPECT_EQ(OS::UTF8Helper::oemFromUTF8(nullptr), "");
    // ASCII is the bytes below 0x80.
    EXPECT_TRUE(OS::CLibrary::String::isAscii("\x7f"));
    EXPECT_TRUE(OS::CLibrary::String::isAscii(""));
    EXPECT_FALSE(OS::CLibrary::String::isAscii("\x80"));
    EXPECT_FALSE(OS::CLibrary::String::isAscii("abc\xff"));
    EXPECT_FALSE(OS::CLibrary::String::isAscii(nullptr));
}

// ------------------------------------------------ streams and byte order

namespace {

typedef CAbstractStream::CStreamException StreamException;

Bytes drain(CAbstractStream& stream) {
    Bytes bytes(stream.getLength());
    stream.readObject(bytes.data(), bytes.size());
    return bytes;
}

// Runs `op` and returns the code of the stream exception it throws (deleting
// it), or 1 when it throws nothing.
template <class Op>
int thrownCode(Op op) {
    try {
        op();
    } catch (StreamException* pException) {
        const int code = pException->m_iExceptionCode;
        delete pException;
        return code;
    }
    return 1;
}

}  // namespace

TEST(Streams, EncodingsAreBigEndianAndPrefixed) {
    CBoundedStream out(0, 512);
    out << 1u << -2 << true << false << std::string("ab") << std::string() << "" << "xyz";
    const Bytes expected = {0, 0, 0, 1, 0xff, 0xff, 0xff, 0xfe, 1, 0,
                            0, 0, 0, 2, 'a',  'b',  0,    0,    0, 0,
                            0, 0, 0, 0, 0,    0,    0,    3,    'x', 'y', 'z'};
    EXPECT_EQ(drain(out), expected);
    EXPECT_EQ(out.getLength(), 0u);
}

TEST(Streams, RoundTripThroughAttachedBufferLeavesOpaqueTail) {
    CBoundedStream out(0, 4);  // a tiny block forces several growth steps
    out << 7u << -1 << true << std::string("tcp://10.0.0.1:5000") << "" << std::string();
    out << (CHAR)'c' << (USHORT)0x1234 << (LONGLONG)-5 << 2.5 << 0.25f;
    const char tail[3] = {'\x00', '\xab', '\xcd'};
    out.writeObject(tail, sizeof tail);
    std::vector<char> frame(out.getLength());
    out.readObject(frame.data(), frame.size());

    CCacheStream in(0);
    ASSERT_TRUE(in.attach(frame.data(), frame.size()));
    EXPECT_EQ(in.getLength(), 0u);  // attached memory starts out empty
    in.writeObject(frame.data(), frame.size());
    unsigned int u = 0;
    int i = 0;
    bool b = false;
    std::string url, empty1 = "x", empty2 = "y";
    CHAR c = 0;
    USHORT us = 0;
    LONGLONG ll = 0;
    double d = 0;
    float f = 0;
    in >> u >> i >> b >> url >> empty1 >> empty2 >> c >> us >> ll >> d >> f;
    EXPECT_EQ(u, 7u);
    EXPECT_EQ(i, -1);
    EXPECT_TRUE(b);
    EXPECT_EQ(url, "tcp://10.0.0.1:5000");
    EXPECT_EQ(empty1, "");
    EXPECT_EQ(empty2, "");
    EXPECT_EQ(c, 'c');
    EXPECT_EQ(us, 0x1234);
    EXPECT_EQ(ll, -5);
    EXPECT_EQ(d, 2.5);
    EXPECT_EQ(f, 0.25f);
    EXPECT_EQ(in.getLength(), sizeof tail);
    // Any byte but zero reads as true.
    char bytes[2] = {'\x02', '\x00'};
    ASSERT_TRUE(in.attach(bytes, 2));
    in.writeObject(bytes, 2);
    bool second = true;
    b = false;
    in >> b >> second;
    EXPECT_TRUE(b);
    EXPECT_FALSE(second);
}

TEST(Streams, NonAsciiTextThrowsBeforeWritingAnything) {
    CBoundedStream out(0, 512);
    out << 5u;
    EXPECT_EQ(thrownCode([&] { out << "caf\xc3\xa9"; }), StreamException::UNEXPECTED_VALUE_ERROR);
    EXPECT_EQ(thrownCode([&] { out << "\x80"; }), StreamException::UNEXPECTED_VALUE_ERROR);
    EXPECT_EQ(thrownCode([&] { out << static_cast<const char*>(nullptr); }),
              StreamException::UNEXPECTED_VALUE_ERROR);
    EXPECT_EQ(out.getLength(), 4u);
    // A std::string is not limited to ASCII: it travels as UTF-8.
    out << std::string("caf\xc3\xa9");
    EXPECT_EQ(out.getLength(), 4u + 4u + 5u);
}

TEST(Streams, ShortInputThrowsNotEnoughSpace) {
    // Ends inside a length prefix.
    char cut[6] = {0, 0, 0, 1, 'a', 0};
    CCacheStream in(0);
    in.attach(cut, sizeof cut);
    in.writeObject(cut, sizeof cut);
    std::string text;
    in >> text;
    EXPECT_EQ(thrownCode([&] { in >> text; }), StreamException::NOT_ENOUGH_SPACE);
    EXPECT_EQ(text, "a");

    // A prefix announcing more than remains: the prefix is consumed, the
    // bytes are not, and the target keeps its value.
    char over[7] = {0, 0, 0, 4, 'a', 'b', 'c'};
    in.attach(over, sizeof over);
    in.writeObject(over, sizeof over);
    EXPECT_EQ(thrownCode([&] { in >> text; }), StreamException::NOT_ENOUGH_SPACE);
    EXPECT_EQ(in.getLength(), 3u);
    EXPECT_EQ(text, "a");

    // Three bytes are not an int; nothing is consumed.
    int value = 42;
    char three[3] = {1, 2, 3};
    in.attach(three, 3);
    in.writeObject(three, 3);
    EXPECT_EQ(thrownCode([&] { in >> value; }), StreamException::NOT_ENOUGH_SPACE);
    EXPECT_EQ(in.getLength(), 3u);
    EXPECT_EQ(value, 42);
    char raw[4];
    EXPECT_EQ(thrownCode([&] { in.readObject(raw, 4); }), StreamException::NOT_ENOUGH_SPACE);
}

TEST(Streams, BoundedStreamRefusesGrowthPastItsBound) {
    CBoundedStream out(6, 4);
    out << 1u;
    EXPECT_TRUE(out.enoughWritable(2));
    EXPECT_FALSE(out.enoughWritable(3));
    EXPECT_EQ(thrownCode([&] { out << 2u; }), StreamException::NOT_ENOUGH_SPACE);
    EXPECT_EQ(thrownCode([&] { out << ""; }), StreamException::NOT_ENOUGH_SPACE);
    // The ASCII check comes before the size check.
    EXPECT_EQ(thrownCode([&] { out << "\xff"; }), StreamException::UNEXPECTED_VALUE_ERROR);
    EXPECT_EQ(out.getLength(), 4u);
    EXPECT_EQ(thrownCode([&] { out.writeObject("abc", 3); }), StreamException::NOT_ENOUGH_SPACE);
    // Space that has been read is given back to the bound.
    unsigned int first = 0;
    out >> first;
    out << 3u << true;
    EXPECT_EQ(out.getLength(), 5u);
}

TEST(Streams, CacheStreamStaysWithinItsBuffer) {
    char buffer[4] = {};
    CCacheStream in(0);
    EXPECT_FALSE(in.enoughWritable(1));  // no memory of its own
    EXPECT_EQ(thrownCode([&] { in << true; }), StreamException::NOT_ENOUGH_SPACE);
    EXPECT_FALSE(in.attach(nullptr, 4));
    ASSERT_TRUE(in.attach(buffer, sizeof buffer));
    in << (SHORT)-2 << true;
    EXPECT_EQ(thrownCode([&] { in << 1u; }), StreamException::NOT_ENOUGH_SPACE);
    size_t written = 0;
    EXPECT_EQ(in.detach(written), buffer);
    EXPECT_EQ(written, 3u);
    EXPECT_EQ(Bytes(buffer, buffer + 3), (Bytes{0xff, 0xfe, 1}));

    CCacheStream owning(8);  // with memory of its own
    owning << 9u;
    unsigned int nine = 0;
    owning >> nine;
    EXPECT_EQ(nine, 9u);
}

TEST(ByteStores, NullHandlesAndOverflowingSizesFailCleanly) {
    char byte = 0;
    EXPECT_EQ(binary_stream_write(nullptr, &byte, 1), BYTE_STREAM_INNER_CRITICAL_ERROR);
    EXPECT_EQ(binary_stream_read(nullptr, &byte, 1), BYTE_STREAM_INNER_CRITICAL_ERROR);
    EXPECT_EQ(binary_stream_get_length(nullptr), 0u);
    EXPECT_FALSE(binary_stream_enough_writable(nullptr, 0));
    EXPECT_EQ(cache_stream_write(nullptr, &byte, 1), BYTE_STREAM_INNER_CRITICAL_ERROR);
    EXPECT_EQ(cache_stream_read(nullptr, &byte, 1), BYTE_STREAM_INNER_CRITICAL_ERROR);
    EXPECT_FALSE(cache_stream_attach(nullptr, &byte, 1));
    EXPECT_EQ(cache_stream_detach(nullptr, nullptr), nullptr);
    binary_stream_destroy(nullptr);
    cache_stream_destroy(nullptr);

    binary_stream_handle* bin = binary_stream_create(0, 0);
    ASSERT_NE(bin, nullptr);
    EXPECT_EQ(binary_stream_write(bin, nullptr, 0), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(binary_stream_write(bin, nullptr, 1), BYTE_STREAM_INNER_CRITICAL_ERROR);
    EXPECT_EQ(binary_stream_write(bin, "ab", 2), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_FALSE(binary_stream_enough_writable(bin, SIZE_MAX - 1));
    EXPECT_EQ(binary_stream_write(bin, "ab", SIZE_MAX), BYTE_STREAM_NOT_ENOUGH_SPACE);
    EXPECT_EQ(binary_stream_read(bin, &byte, SIZE_MAX), BYTE_STREAM_NOT_ENOUGH_SPACE);
    EXPECT_EQ(binary_stream_get_length(bin), 2u);
    binary_stream_destroy(&bin);
    EXPECT_EQ(bin, nullptr);

    // Growing after a partial read keeps the unread bytes in order.
    bin = binary_stream_create(0, 4);
    char out[5] = {};
    EXPECT_EQ(binary_stream_write(bin, "abc", 3), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(binary_stream_read(bin, out, 1), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(binary_stream_write(bin, "def", 3), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(binary_stream_read(bin, out, 5), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(std::string(out, 5), "bcdef");
    binary_stream_destroy(&bin);
    EXPECT_EQ(bin, nullptr);

    char buffer[8] = "abcdefg";
    cache_stream_handle* cache = cache_stream_create(0);
    ASSERT_TRUE(cache_stream_attach(cache, buffer, sizeof buffer));
    EXPECT_FALSE(cache_stream_enough_writable(cache, SIZE_MAX));
    EXPECT_EQ(cache_stream_write(cache, buffer, SIZE_MAX), BYTE_STREAM_NOT_ENOUGH_SPACE);
    // An overlapping write from inside the buffer itself moves safely.
    EXPECT_EQ(cache_stream_write(cache, buffer + 1, 4), BYTE_STREAM_OPERATE_SUCCEED);
    EXPECT_EQ(std::string(buffer, 4), "bcde");
    EXPECT_TRUE(cache_stream_attach(cache, nullptr, 0));
    EXPECT_EQ(cache_stream_get_length(cache), 0u);
    cache_stream_destroy(&cache);
    EXPECT_EQ(cache, nullptr);
}

// ------------------------------------------------------------ byte order

// Every width the wire uses lands most significant byte first, and comes
// back unchanged; a double goes through as its bits.
TEST(EndianType, ConvertsEveryWidthToNetworkOrderAndBack) {
    const unsigned char expected[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    auto check = [&](auto value, auto original) {
        CEndianType::hostToNetwork(value);
        EXPECT_EQ(std::memcmp(&value, expected, sizeof value), 0) << sizeof value;
        CEndianType::networkToHost(value);
        EXPECT_EQ(value, original);
    };
    check(uint16_t{0x0102}, uint16_t{0x0102});
    check(uint32_t{0x01020304}, uint32_t{0x01020304});
    check(int32_t{0x01020304}, int32_t{0x01020304});
    check(uint64_t{0x0102030405060708ULL}, uint64_t{0x0102030405060708ULL});
    double d;
    uint64_t bits = 0;
    std::memcpy(&bits, expected, sizeof bits);
    bits = CEndianType::networkToHost(bits);
    std::memcpy(&d, &bits, sizeof d);
    check(d, d);
}

// --------------------------------------------------------- OS primitives

namespace {

using namespace std::chrono_literals;

// Locks and unlocks the mutex on its own thread, so a test can see whether
// the mutex is free.
class Prober {
public:
    explicit Prober(OS::TBaseMutex* mutex)
        : m_thread([this, mutex] {
              mutex->lock();
              m_acquired = true;
              mutex->unlock();
          }) {}
    ~Prober() { m_thread.join(); }
    bool acquiredWithin(std::chrono::milliseconds limit) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!m_acquired && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        return m_acquired;
    }

private:
    std::atomic<bool> m_acquired{false};
    std::thread m_thread;
};

long msUntil(const timespec& deadline) {
    timespec now{};
    OS::Clock::getTime(OS::Clock::MONOTONIC, &now, USE_DEFAULT);
    return (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
}

}  // namespace

// A recursive mutex is free only after every unlock; a scoped lock holds
// for its scope (and a null one does nothing).
TEST(Mutex, RecursiveAndScopedLocksHoldAsLongAsTheyShould) {
    OS::TRecursiveMutex recursive;
    recursive.lock();
    recursive.lock();
    {
        Prober prober(&recursive);
        recursive.unlock();
        EXPECT_FALSE(prober.acquiredWithin(50ms));
        recursive.unlock();
        EXPECT_TRUE(prober.acquiredWithin(2s));
    }
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    { TAutoMutex<OS::TBaseMutex> none(nullptr); }
    std::optional<Prober> prober;
    {
        TAutoMutex<OS::TBaseMutex> guard(&mutex);
        prober.emplace(&mutex);
        EXPECT_FALSE(prober->acquiredWithin(50ms));
    }
    EXPECT_TRUE(prober->acquiredWithin(2s));
}

TEST(Mutex, PlainMutexExcludes) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    long counter = 0;  // deliberately not atomic: only the mutex guards it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                TAutoMutex<OS::TBaseMutex> guard(&mutex);
                ++counter;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 80000);
}

// A condition binds one mutex, once; notified, a wait returns OK.
TEST(Condition, BindsOneMutexAndWakesWhenNotified) {
    OS::TBaseMutex first(MUTEX_NONE, USE_STD, nullptr);
    OS::TBaseMutex second(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(nullptr, USE_STD);
    EXPECT_EQ(condition.handle(), nullptr);
    EXPECT_FALSE(condition.bindMutex(nullptr));
    EXPECT_EQ(condition.handle(), nullptr);
    ASSERT_TRUE(condition.bindMutex(&first));
    condition_handle* bound = condition.handle();
    ASSERT_NE(bound, nullptr);
    EXPECT_FALSE(condition.bindMutex(&second));
    EXPECT_EQ(condition.handle(), bound);

    bool ready = false;  // guarded by `first`, to which the condition stays bound
    first.lock();
    std::thread notifier([&] {
        TAutoMutex<OS::TBaseMutex> guard(&first);
        ready = true;
        condition.notify();
    });
    const timespec deadline = OS::Clock::monotonicDeadline(5000);
    int result = WAIT_CONDITION_OK;
    while (!ready && result == WAIT_CONDITION_OK) result = condition.wait(deadline);
    EXPECT_TRUE(ready);
    EXPECT_EQ(result, WAIT_CONDITION_OK);
    first.unlock();
    notifier.join();
}

// A timed wait ends at its monotonic deadline, not before; a past one
// returns at once, an invalid one fails at once.
TEST(Condition, TimedWaitEndsAtItsMonotonicDeadline) {
    OS::TBaseMutex mutex(MUTEX_NONE, USE_STD, nullptr);
    OS::TCondition condition(&mutex, USE_STD);
    TAutoMutex<OS::TBaseMutex> guard(&mutex);
    const timespec deadline = OS::Clock::monotonicDeadline(150);
    const auto start = std::chrono::steady_clock::now();
    int result;
    do {  // a wake-up without notification may come early
        result = condition.wait(deadline);
    } while (result == WAIT_CONDITION_OK && msUntil(deadline) > 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result, WAIT_CONDITION_TIMEOUT);
    EXPECT_LE(msUntil(deadline), 0);  // not early
    EXPECT_LT(elapsed, 2s);
    const timespec now = OS::Clock::monotonicNow();
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(condition.wait(timespec{now.tv_sec - 1, now.tv_nsec}), WAIT_CONDITION_TIMEOUT);
    EXPECT_EQ(condition.wait(timespec{now.tv_sec + 1, 1000000000L}), WAIT_CONDITION_FAILED);
    EXPECT_EQ(condition.wait(timespec{now.tv_sec + 1, -1}), WAIT_CONDITION_FAILED);
    EXPECT_LT(std::chrono::steady_clock::now() - again, 500ms);
}

// Adds and subtracts return the value after the change; concurrent adds
// are exact and each returns a value of its own.
TEST(Atomic, ConcurrentAddsAreExactAndDistinct) {
    volatile unsigned long counter = 0;
    constexpr int kThreads = 4, kEach = 10000;
    std::vector<std::vector<unsigned long>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&counter, &seen, t] {
            for (int i = 0; i < kEach; ++i) seen[t].push_back(OS::Thread::syncFetchAdd(&counter));
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, static_cast<unsigned long>(kThreads * kEach));
    std::set<unsigned long> all;
    for (const auto& values : seen) all.insert(values.begin(), values.end());
    ASSERT_EQ(all.size(), static_cast<size_t>(kThreads * kEach));
    EXPECT_EQ(*all.begin(), 1u);  // values after the change: 1..N
    EXPECT_EQ(*all.rbegin(), static_cast<unsigned long>(kThreads * kEach));
    EXPECT_EQ(OS::Thread::syncFetchSub(&counter), static_cast<unsigned long>(kThreads * kEach - 1));
}

TEST(Clock, AdjustCarriesWholeSecondsBothWays) {
    struct Case {
        timespec in, out;
    } cases[] = {
        {{1, 3500000000L}, {4, 500000000L}},  {{0, 1000000000L}, {1, 0}},
        {{5, 999999999L}, {5, 999999999L}},   {{5, -1}, {4, 999999999L}},
        {{5, -1000000000L}, {4, 0}},          {{5, -2500000000L}, {2, 500000000L}},
        {{0, 7200000000000L}, {7200, 0}},
    };
    for (auto& c : cases) {
        timespec t = c.in;
        OS::Clock::adjustClockTime(&t);
        EXPECT_EQ(t.tv_sec, c.out.tv_sec) << c.in.tv_sec << "s " << c.in.tv_nsec << "ns";
        EXPECT_EQ(t.tv_nsec, c.out.tv_nsec) << c.in.tv_sec << "s " << c.in.tv_nsec << "ns";
    }
    timespec t{10, 999000000L};
    OS::Clock::addMilliseconds(&t, 123456);
    EXPECT_EQ(t.tv_sec, 134);
    EXPECT_EQ(t.tv_nsec, 455000000L);
}

TEST(Clock, MonotonicDeadlineAndOrdering) {
    timespec before{}, after{};
    ASSERT_EQ(OS::Clock::getTime(OS::Clock::MONOTONIC, &before, USE_DEFAULT), 0);
    timespec deadline = OS::Clock::monotonicDeadline(1500);
    ASSERT_EQ(OS::Clock::getTime(OS::Clock::MONOTONIC, &after, USE_DEFAULT), 0);
    OS::Clock::addMilliseconds(&before, 1500);
    OS::Clock::addMilliseconds(&after, 1500);
    EXPECT_FALSE(OS::Clock::isEarlier(deadline, before));
    EXPECT_FALSE(OS::Clock::isEarlier(after, deadline));
    EXPECT_LT(deadline.tv_nsec, 1000000000L);
    EXPECT_TRUE(OS::Clock::isEarlier({1, 5}, {1, 6}));
    EXPECT_TRUE(OS::Clock::isEarlier({1, 999999999L}, {2, 0}));
    EXPECT_FALSE(OS::Clock::isEarlier({1, 5}, {1, 5}));
    timespec ignored{};
    EXPECT_EQ(OS::Clock::getTime(static_cast<clockid_t>(12345), &ignored, USE_DEFAULT), -1);
    // A negative time-out is no limit; a deadline now or before has passed.
    EXPECT_TRUE(OS::Clock::isNoLimit(OS::Clock::deadlineAfter(-1)));
    EXPECT_FALSE(OS::Clock::isNoLimit(OS::Clock::deadlineAfter(0)));
    EXPECT_TRUE(OS::Clock::hasPassed(OS::Clock::monotonicNow()));
    EXPECT_FALSE(OS::Clock::hasPassed(deadline));
}

TEST(Thread, CreateAndJoinInEveryMode) {
    EXPECT_EQ(get_default_rt_mode(), USE_STD);
    struct Run {
        unsigned long id = 0;
        static void* body(void* arg) {
            static_cast<Run*>(arg)->id = OS::Thread::current();
            return nullptr;
        }
    };
    for (RT_MODE mode : {USE_DEFAULT, USE_STD, USE_RT}) {  // USE_RT falls back when refused
        for (size_t stack : {size_t{0}, size_t{256 * 1024}}) {
            Run run;
            pthread_t thread{};
            ASSERT_EQ(OS::Thread::create(&thread, &Run::body, &run, mode, stack), 0) << mode;
            ASSERT_EQ(OS::Thread::join(thread, USE_DEFAULT), 0);
            EXPECT_NE(run.id, 0u);
            EXPECT_NE(run.id, OS::Thread::current());
        }
    }
}

// The host owns standard output: the log task must leave its buffering as
// it found it (a pipe or file stays fully buffered, so the host's own
// output does not turn into a write per line), and still hand each
// diagnostic on at once. Checked in a child with a fresh stdout on a pipe,
// which the host has already written to.
TEST(LogTask, LeavesStdoutBufferingAsItWasAndFlushesEachDiagnostic) {
    std::fflush(stdout);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fds[2];
        if (pipe(fds) != 0 || dup2(fds[1], STDOUT_FILENO) < 0) _exit(10);
        stdout = fdopen(STDOUT_FILENO, "w");
        if (stdout == nullptr) _exit(11);
        std::fputs("host output\n", stdout);
        if (__flbf(stdout) != 0) _exit(12);  // fully buffered to begin with
        install_log_task();
        install_log_task();  // nested
        if (__flbf(stdout) != 0) _exit(13);
        std::fflush(stdout);
        log_task_line("diagnostic %d", 1);
        if (__fpending(stdout) != 0) _exit(14);
        uninstall_log_task();
        uninstall_log_task();
        if (__flbf(stdout) != 0) _exit(15);
        std::fputs("host output again\n", stdout);
        if (__fpending(stdout) == 0) _exit(16);  // buffered, as before
        _exit(0);
    }
    int status = -1;
    for (int i = 0; i < 500 && waitpid(pid, &status, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(10ms);
    if (!WIFEXITED(status)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        FAIL() << "the child did not end";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10+: setup; 13/15: buffering changed; 14: diagnostic "
                                         "held back; 16: host output no longer buffered";
}

// --------------------------------------------------------------- sockets

namespace {

// Makes `socket` listen on 127.0.0.1 at a system-chosen port; that port, or
// 0 when any step failed.
USHORT listenOnAnyPort(CSocket& socket, int backlog) {
    std::string ip;
    USHORT port = 0;
    if (!socket.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT) || !socket.listen(backlog) ||
        !socket.getSockName(ip, port))
        return 0;
    return port;
}

// A listener on 127.0.0.1 with a system-chosen port, a client connected to
// it and the accepted server end.
struct TcpLink {
    CSocket listener, client, server;
    USHORT port = 0;

    void open() {
        port = listenOnAnyPort(listener, 5);
        ASSERT_NE(port, 0);
        ASSERT_TRUE(client.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
        ASSERT_TRUE(client.connect("127.0.0.1", port));
        ASSERT_TRUE(listener.readyToRead(2000, nullptr));
        ISocket* target = &server;
        std::string peer;
        USHORT peerPort = 0;
        ASSERT_TRUE(listener.accept(target, peer, peerPort, USE_DEFAULT));
        ASSERT_TRUE(client.readyToWrite(2000, nullptr));
    }
};

}  // namespace

// Text and port both ways; text that is no address, and all ones (which
// cannot be told from a parse error), are the wildcard.
TEST(SockAddr, ConvertsTextAndPortBothWays) {
    CSockAddr addr(std::string("10.1.2.3"), 4660);
    EXPECT_EQ(addr.dottedDecimal(), "10.1.2.3");
    EXPECT_EQ(addr.Port(), 4660);
    EXPECT_EQ(addr.iPAddr(), 0x0A010203UL);
    EXPECT_EQ(addr.sin_family, AF_INET);

    CSockAddr numeric(0x7F000001UL, 80);
    EXPECT_EQ(numeric.dottedDecimal(), "127.0.0.1");
    CSockAddr copy(static_cast<const sockaddr&>(numeric));
    EXPECT_EQ(copy.dottedDecimal(), "127.0.0.1");
    EXPECT_EQ(copy.Port(), 80);
    EXPECT_EQ(CSockAddr(std::string("not-an-address"), 1).dottedDecimal(), "0.0.0.0");
    EXPECT_EQ(CSockAddr(std::string(""), 1).dottedDecimal(), "0.0.0.0");
    EXPECT_EQ(CSockAddr(std::string("255.255.255.255"), 1).dottedDecimal(), "0.0.0.0");
}

TEST(Socket, AttachRefusesMinusOneAndASecondDescriptor) {
    CSocket socket;
    EXPECT_FALSE(socket.attach(-1, USE_DEFAULT));
    EXPECT_EQ(socket.getSockFd(), -1);

    const int first = OS::Socket::socket(AF_INET, SOCK_STREAM, 0, USE_STD);
    const int second = OS::Socket::socket(AF_INET, SOCK_STREAM, 0, USE_STD);
    ASSERT_NE(first, -1);
    ASSERT_NE(second, -1);
    EXPECT_TRUE(socket.attach(first, USE_DEFAULT));
    EXPECT_FALSE(socket.attach(second, USE_DEFAULT));
    EXPECT_EQ(socket.getSockFd(), first);

    // attach made the descriptor non-blocking: a receive on an unconnected
    // stream socket fails at once instead of waiting.
    char byte;
    EXPECT_EQ(socket.receive(&byte, 1, 0), -1);

    EXPECT_EQ(socket.dettach(), first);
    EXPECT_EQ(socket.getSockFd(), -1);
    EXPECT_TRUE(socket.close());  // nothing to close
    OS::Socket::close(first, USE_STD);
    OS::Socket::close(second, USE_STD);
}

// The wildcard and a text that is no address bind the same wildcard (a
// busy port: see TcpListenSink).
TEST(Socket, BindToTheWildcard) {
    for (const char* text : {"0.0.0.0", "not-an-address"}) {
        CSocket socket;
        ASSERT_TRUE(socket.initSocket(SOCK_STREAM, text, 0, USE_DEFAULT)) << text;
        std::string ip;
        USHORT port = 0;
        ASSERT_TRUE(socket.getSockName(ip, port));
        EXPECT_EQ(ip, "0.0.0.0") << text;
        EXPECT_NE(port, 0) << text;
    }
}

TEST(Socket, ConnectWhereNothingListensStartsThenFails) {
    const USHORT port = freePort();
    ASSERT_NE(port, 0);
    CSocket socket;
    ASSERT_TRUE(socket.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    EXPECT_TRUE(socket.connect("127.0.0.1", port));
    ASSERT_TRUE(socket.readyToWrite(2000, nullptr));
    int error = 0;
    socklen_t length = sizeof error;
    ASSERT_EQ(socket.getSockopt(SOL_SOCKET, SO_ERROR, &error, &length), 0);
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_TRUE(socket.isLinkBroken());
    char byte = 'x';
    EXPECT_EQ(socket.send(&byte, 1, 0), -1);
}

TEST(Socket, AcceptNeedsAPendingConnectionAndAFreeSocketObject) {
    CSocket listener;
    const USHORT port = listenOnAnyPort(listener, 5);
    ASSERT_NE(port, 0);

    CSocket target;
    ISocket* targetPtr = &target;
    std::string peer = "unchanged";
    USHORT peerPort = 7;
    // Non-blocking: nothing pending fails at once and attaches nothing.
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(listener.accept(targetPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_LT(msSince(start), 400);
    EXPECT_EQ(target.getSockFd(), -1);
    EXPECT_EQ(peer, "unchanged");
    ISocket* none = nullptr;
    EXPECT_FALSE(listener.accept(none, peer, peerPort, USE_DEFAULT));

    CSocket client;
    ASSERT_TRUE(client.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(client.connect("127.0.0.1", port));
    ASSERT_TRUE(listener.readyToRead(2000, nullptr));

    // An object that already holds a descriptor refuses the connection.
    CSocket busy;
    ASSERT_TRUE(busy.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    const int busyFd = busy.getSockFd();
    ISocket* busyPtr = &busy;
    EXPECT_FALSE(listener.accept(busyPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_EQ(busy.getSockFd(), busyFd);

    // That connection was closed; the next one is accepted normally.
    CSocket client2;
    ASSERT_TRUE(client2.initSocket(SOCK_STREAM, "127.0.0.1", 0, USE_DEFAULT));
    ASSERT_TRUE(client2.connect("127.0.0.1", port));
    ASSERT_TRUE(listener.readyToRead(2000, nullptr));
    ASSERT_TRUE(listener.accept(targetPtr, peer, peerPort, USE_DEFAULT));
    EXPECT_NE(target.getSockFd(), -1);
    std::string clientIp;
    USHORT clientPort = 0;
    ASSERT_TRUE(client2.getSockName(clientIp, clientPort));
    EXPECT_EQ(peer, "127.0.0.1");
    EXPECT_EQ(peerPort, clientPort);
}

TEST(Socket, SendAndReceiveOverALink) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    char buffer[16];
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(OS::Socket::getErrnoCode(), EAGAIN);

    ASSERT_EQ(link.client.send("hello", 5, 0), 5);
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, MSG_PEEK), 5);
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), 5);
    EXPECT_EQ(std::string(buffer, 5), "hello");

    std::string ip;
    USHORT port = 0;
    ASSERT_TRUE(link.server.getPeerName(ip, port));
    EXPECT_EQ(ip, "127.0.0.1");

    link.client.close();
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, 0), 0);
}

// Bytes pending from a peer that is still there are no broken link; after
// its shutdown the link is broken and the bytes still there to read. A
// peer that closes with bytes unread resets the link; no socket is broken.
TEST(Socket, WhenALinkIsBroken) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    EXPECT_FALSE(link.server.isLinkBroken());
    ASSERT_EQ(link.client.send("\0\0\0\1\0", 5, 0), 5);
    ASSERT_TRUE(link.server.readyToRead(2000, nullptr));
    EXPECT_FALSE(link.server.isLinkBroken());  // bytes pending, peer still there

    ASSERT_EQ(OS::Socket::shutdown(link.client.getSockFd(), SHUT_WR, USE_STD), 0);
    const Clock::time_point start = Clock::now();
    while (!link.server.isLinkBroken() && msSince(start) < 2000) {
        link.server.readyToReadInMicroSecond(1000, nullptr);
    }
    EXPECT_TRUE(link.server.isLinkBroken());
    // The five bytes are still there to read.
    char buffer[8];
    EXPECT_EQ(link.server.receive(buffer, sizeof buffer, MSG_PEEK), 5);

    TcpLink other;
    ASSERT_NO_FATAL_FAILURE(other.open());
    ASSERT_EQ(other.client.send("abc", 3, 0), 3);
    ASSERT_TRUE(other.server.readyToRead(2000, nullptr));
    other.server.close();
    for (const Clock::time_point start = Clock::now();
         !other.client.isLinkBroken() && msSince(start) < 2000;)
        other.client.readyToReadInMicroSecond(1000, nullptr);
    EXPECT_TRUE(other.client.isLinkBroken());

    CSocket empty;
    EXPECT_TRUE(empty.isLinkBroken());
}

TEST(Socket, ReadableAndWritableWaitsAreBounded) {
    TcpLink link;
    ASSERT_NO_FATAL_FAILURE(link.open());
    int error = -1;
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(link.server.readyToRead(60, &error));
    long waited = msSince(start);
    EXPECT_GE(waited, 50);
    EXPECT_LT(waited, 1000);
    EXPECT_EQ(error, ETIMEDOUT);

    start = Clock::now();
    EXPECT_FALSE(link.server.readyToReadInMicroSecond(20000, &error));
    waited = msSince(start);
    EXPECT_GE(waited, 15);
    EXPECT_LT(waited, 1000);

    EXPECT_TRUE(link.server.readyToWrite(1000, &error));
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(link.server.readyToWriteInMicroSecond(0, nullptr));

    // No descriptor: the wait fails at once instead of sleeping.
    CSocket empty;
    start = Clock::now();
    EXPECT_FALSE(empty.readyToRead(5000, &error));
    EXPECT_EQ(error, EBADF);
    EXPECT_FALSE(empty.readyToWrite(5000, nullptr));
    EXPECT_LT(msSince(start), 1000);
}
