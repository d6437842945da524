#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ApartmentSink.h"
#include "GroundKit/Reference/Reference.h"

namespace {

// A sink without transport that records what its hooks were given.
class RecordingSink : public CApartmentSink {
public:
    explicit RecordingSink(APARTMENT_SINK_TYPE type, bool initResult = true)
        : m_type(type), m_initResult(initResult) {}

    APARTMENT_SINK_TYPE sinkType() const override { return m_type; }
    bool sendFrame(const unsigned int&, const void*, const unsigned int&) override {
        return false;
    }
    bool receiveFrame(unsigned int&, void*, unsigned int&) override { return false; }

    int initedCalls = 0;
    const char* initedLocal = "not called";
    const char* initedRemote = "not called";
    bool destroyResult = true;
    int closeCalls = 0;

protected:
    bool onSinkInited(const char* localAddress, const char* remoteAddress) override {
        ++initedCalls;
        initedLocal = localAddress;
        initedRemote = remoteAddress;
        return m_initResult;
    }
    bool onSinkDestroyed() override { return destroyResult; }
    void onSinkClose() override { ++closeCalls; }

private:
    APARTMENT_SINK_TYPE m_type;
    bool m_initResult;
};

std::string localAddressOf(const IApartmentSink& sink) {
    std::string out;
    CApartmentSinkHelper::getLocalAddress(&sink, out);
    return out;
}

}  // namespace

TEST(ApartmentSink, InitWithNullAddressesStoresEmptyTextsAndPassesTheNulls) {
    RecordingSink sink(CLIENT_SINK);
    EXPECT_TRUE(sink.isSinkClosed());
    sink.setRTConnection(true);
    sink.setLoopbackType(SERVER_LOOPBACK_TYPE);
    sink.setExpectSinkClosed(true);

    ASSERT_TRUE(sink.initSink(nullptr, nullptr));
    EXPECT_EQ(sink.initedCalls, 1);
    EXPECT_EQ(sink.initedLocal, nullptr);
    EXPECT_EQ(sink.initedRemote, nullptr);
    DWORD length = 99;
    ASSERT_TRUE(sink.getLocalAddress(nullptr, length));
    EXPECT_EQ(length, 1UL);
    ASSERT_TRUE(sink.getRemoteAddress(nullptr, length));
    EXPECT_EQ(length, 1UL);
    // Every flag is reset before use.
    EXPECT_FALSE(sink.isSinkClosed());
    EXPECT_FALSE(sink.getRTConnection());
    EXPECT_FALSE(sink.isExpectSinkClosed());
    EXPECT_EQ(sink.getLoopbackType(), NONE_LOOPBACK_TYPE);
}

TEST(ApartmentSink, FailedInitLeavesTheSinkDestroyed) {
    RecordingSink sink(CLIENT_SINK, false);
    sink.setLocalApartmentUrl("tcp://127.0.0.1:1");
    EXPECT_FALSE(sink.initSink("127.0.0.1:1", "127.0.0.1:2"));
    EXPECT_TRUE(sink.isSinkClosed());
    EXPECT_EQ(localAddressOf(sink), "");
    std::string url = "kept";
    // The value is empty (length 1) but the helper still succeeds.
    EXPECT_TRUE(CApartmentSinkHelper::getLocalApartmentUrl(&sink, url));
    EXPECT_EQ(url, "");
}

TEST(ApartmentSink, DestroyAndCloseLifecycle) {
    RecordingSink sink(SERVER_SINK);
    ASSERT_TRUE(sink.initSink("10.0.0.1:5", "10.0.0.2:6"));
    sink.setRemoteApartmentUrl("tcp://10.0.0.2:6000");
    sink.setExpectSinkClosed(true);

    // close keeps the identity, so a closed sink can still be compared.
    sink.closeSink();
    EXPECT_EQ(sink.closeCalls, 1);
    EXPECT_TRUE(sink.isSinkClosed());
    EXPECT_FALSE(sink.isExpectSinkClosed());
    EXPECT_EQ(localAddressOf(sink), "10.0.0.1:5");

    // A transport that refuses destruction changes nothing.
    sink.destroyResult = false;
    EXPECT_FALSE(sink.destroySink());
    EXPECT_EQ(localAddressOf(sink), "10.0.0.1:5");

    sink.destroyResult = true;
    EXPECT_TRUE(sink.destroySink());
    EXPECT_EQ(localAddressOf(sink), "");
    std::string url;
    EXPECT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(&sink, url));
    EXPECT_EQ(url, "");
}

TEST(ApartmentSink, GettersFollowTheSizeProtocol) {
    RecordingSink sink(CLIENT_SINK);
    const std::string url = "tcp://192.168.1.5:7000";
    sink.setLocalApartmentUrl(url.c_str());

    DWORD length = 0;
    ASSERT_TRUE(sink.getLocalApartmentUrl(nullptr, length));
    ASSERT_EQ(length, url.size() + 1);

    char buffer[64];
    std::memset(buffer, 'x', sizeof buffer);
    DWORD tooSmall = url.size();
    EXPECT_FALSE(sink.getLocalApartmentUrl(buffer, tooSmall));
    EXPECT_EQ(tooSmall, url.size());  // unchanged
    EXPECT_EQ(buffer[0], 'x');        // untouched

    DWORD exact = url.size() + 1;
    ASSERT_TRUE(sink.getLocalApartmentUrl(buffer, exact));
    EXPECT_EQ(exact, url.size() + 1);
    EXPECT_STREQ(buffer, url.c_str());

    DWORD larger = sizeof buffer;
    ASSERT_TRUE(sink.getLocalApartmentUrl(buffer, larger));
    EXPECT_EQ(larger, url.size() + 1);
}

TEST(ApartmentSink, SettersStoreNullAsEmpty) {
    RecordingSink sink(CLIENT_SINK);
    sink.setLocalApartmentUrl("tcp://a:1");
    sink.setRemoteApartmentUrl("tcp://b:2");
    sink.setLocalApartmentUrl(nullptr);
    sink.setRemoteApartmentUrl(nullptr);
    std::string local = "x", remote = "x";
    EXPECT_TRUE(CApartmentSinkHelper::getLocalApartmentUrl(&sink, local));
    EXPECT_TRUE(CApartmentSinkHelper::getRemoteApartmentUrl(&sink, remote));
    EXPECT_EQ(local, "");
    EXPECT_EQ(remote, "");
}

TEST(ApartmentSink, HelperRejectsANullSink) {
    std::string out = "unchanged";
    EXPECT_FALSE(CApartmentSinkHelper::getLocalApartmentUrl(nullptr, out));
    EXPECT_FALSE(CApartmentSinkHelper::getRemoteAddress(nullptr, out));
    EXPECT_EQ(out, "unchanged");
}

TEST(ApartmentSink, ClientAndServerEndsOfOneLinkCompareEqual) {
    RecordingSink client(CLIENT_SINK);
    ASSERT_TRUE(client.initSink("10.0.0.1:40000", "10.0.0.2:6000"));
    client.setLocalApartmentUrl("tcp://10.0.0.1:5000");
    client.setRemoteApartmentUrl("tcp://10.0.0.2:6000");

    // The server end names the client's end as its remote one.
    RecordingSink server(SERVER_SINK);
    ASSERT_TRUE(server.initSink("10.0.0.2:6000", "10.0.0.1:40000"));
    server.setLocalApartmentUrl("tcp://10.0.0.2:6000");
    server.setRemoteApartmentUrl("tcp://10.0.0.1:5000");

    EXPECT_EQ(client.compareConnection(&server), 0);
    EXPECT_EQ(server.compareConnection(&client), 0);

    // A different peer address is another connection.
    RecordingSink other(SERVER_SINK);
    ASSERT_TRUE(other.initSink("10.0.0.2:6000", "10.0.0.1:40001"));
    other.setRemoteApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_NE(client.compareConnection(&other), 0);

    // Two server sinks compare by their peers' ends.
    EXPECT_NE(server.compareConnection(&other), 0);
    other.destroySink();
    ASSERT_TRUE(other.initSink("10.0.0.9:1", "10.0.0.1:40000"));
    other.setRemoteApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_EQ(server.compareConnection(&other), 0);
}

TEST(ApartmentSink, CompareWithoutIdentityIsMinusTwo) {
    RecordingSink client(CLIENT_SINK);
    ASSERT_TRUE(client.initSink("10.0.0.1:1", "10.0.0.2:2"));
    EXPECT_EQ(client.compareConnection(nullptr), -2);
    // No local URL yet: unidentified, even against itself.
    EXPECT_EQ(client.compareConnection(&client), -2);
    client.setLocalApartmentUrl("tcp://10.0.0.1:5000");
    EXPECT_EQ(client.compareConnection(&client), 0);

    RecordingSink server(SERVER_SINK);
    ASSERT_TRUE(server.initSink("10.0.0.2:2", "10.0.0.1:1"));
    server.setLocalApartmentUrl("tcp://10.0.0.1:5000");  // a server uses its REMOTE URL
    EXPECT_EQ(client.compareConnection(&server), -2);
    EXPECT_EQ(server.compareConnection(&client), -2);
}

TEST(ApartmentSink, InterfaceLookupAndCasts) {
    CReference<IApartmentSink> sink(new RecordingSink(CLIENT_SINK));
    CReference<IApartmentSink> viaCast(asIApartmentSink(sink));
    ASSERT_FALSE(viaCast.nil());
    EXPECT_EQ(static_cast<IApartmentSink*>(viaCast), static_cast<IApartmentSink*>(sink));
    EXPECT_EQ(asITcpApartmentSink(sink), nullptr);
    EXPECT_EQ(asIApartmentListenSink(sink), nullptr);
    EXPECT_EQ(asIApartmentSink(nullptr), nullptr);
    EXPECT_EQ(viaCast.release(), 1UL);
}
