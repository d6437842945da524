#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FieldKit/BoundedStream/BoundedStream.h"

namespace {

typedef CAbstractStream::CStreamException StreamException;
typedef std::vector<unsigned char> Bytes;

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
}

TEST(Streams, AnyNonZeroByteReadsAsTrue) {
    char bytes[2] = {'\x02', '\x00'};
    CCacheStream in(0);
    in.attach(bytes, 2);
    in.writeObject(bytes, 2);
    bool first = false, second = true;
    in >> first >> second;
    EXPECT_TRUE(first);
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
