// The registry, the factory and the apartment's identity: what a URL
// becomes, which URLs are refused, and that a refused apartment leaves the
// registered one alone.
#include <gtest/gtest.h>

#include <string>

#include "ApartmentFactory.h"
#include "TcpApartment.h"
#include "apartment_test_util.h"

using namespace aptest;

namespace {

ULONG countOf(IBase* pObject) {
    const ULONG count = pObject->addRef();
    pObject->releaseRef();
    return count - 1;
}

// "tcp://" followed by text of the given total length.
std::string urlOfLength(size_t length) {
    std::string url = "tcp://127.0.0.1:";
    url.append(length - url.size(), '9');
    return url;
}

TEST(ApartmentRegistry, ListeningApartmentGetsItsRealPortAndPrintsIt) {
    Registry registry;
    testing::internal::CaptureStdout();
    CReference<IApartment> apartment = createListening();
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_FALSE(apartment.nil());

    const std::string url = urlOf(apartment);
    ASSERT_EQ(url.rfind("tcp://127.0.0.1:", 0), 0u) << url;
    const int port = std::stoi(url.substr(std::string("tcp://127.0.0.1:").size()));
    EXPECT_GT(port, 0);
    EXPECT_NE(out.find("Apartment listen at port(" + url + ").\n"), std::string::npos) << out;
    EXPECT_EQ(apartment->apartmentType(), TCP_APARTMENT);

    CReference<IApartment> found(Registry::manager()->findApartment(url.c_str()));
    EXPECT_EQ(static_cast<IApartment*>(found), static_cast<IApartment*>(apartment));
}

TEST(ApartmentRegistry, SchemeAloneWithoutListeningIsTheDefaultAddress) {
    Registry registry;
    CReference<IApartment> apartment(Registry::manager()->createApartment("tcp://", false));
    ASSERT_FALSE(apartment.nil());
    EXPECT_EQ(urlOf(apartment), "tcp://0.0.0.0:0");
}

TEST(ApartmentRegistry, DuplicateUrlIsRefusedAndTheFirstApartmentUntouched) {
    Registry registry;
    CReference<IApartment> first = createListening();
    ASSERT_FALSE(first.nil());
    const std::string url = urlOf(first);
    const ULONG count = countOf(first);

    // Same key, without a second bind: the registry itself must refuse it.
    EXPECT_EQ(Registry::manager()->createApartment(url.c_str(), false), nullptr);
    EXPECT_EQ(urlOf(first), url);
    EXPECT_EQ(countOf(first), count);
    CReference<IApartment> found(Registry::manager()->findApartment(url.c_str()));
    EXPECT_EQ(static_cast<IApartment*>(found), static_cast<IApartment*>(first));
    // Still listening: a link to it comes through.
    CReference<IApartment> other = createListening();
    ASSERT_FALSE(other.nil());
    EXPECT_TRUE(other->connectApartment(url.c_str(), false));
}

TEST(ApartmentRegistry, UrlLengthLimitIs128Characters) {
    Registry registry;
    const std::string longest = urlOfLength(128);
    CReference<IApartment> accepted(Registry::manager()->createApartment(longest.c_str(), false));
    ASSERT_FALSE(accepted.nil());
    EXPECT_EQ(urlOf(accepted), longest);

    const std::string tooLong = urlOfLength(129);
    testing::internal::CaptureStdout();
    IApartment* refused = Registry::manager()->createApartment(tooLong.c_str(), false);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(out, "Apartment url is too long: " + tooLong + ".\n");
}

TEST(ApartmentRegistry, OnlyTheLowerCaseTcpSchemeIsAccepted) {
    Registry registry;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Registry::manager()->createApartment("TCP://127.0.0.1:0", false), nullptr);
    EXPECT_EQ(Registry::manager()->createApartment("udp://127.0.0.1:0", false), nullptr);
    EXPECT_EQ(Registry::manager()->createApartment(nullptr, false), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(CApartmentFactory::apartmentType("tcp:/"), INVALID_APARTMENT);
    EXPECT_EQ(CApartmentFactory::apartmentType("tcp://x"), TCP_APARTMENT);
}

TEST(ApartmentRegistry, FindRemoveAndRemoveAll) {
    Registry registry;
    Registry::manager()->removeAllApartments();  // empty: nothing to do
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:7"), nullptr);
    EXPECT_FALSE(Registry::manager()->removeApartment("tcp://127.0.0.1:7"));

    CReference<IApartment> apartment(
        Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    ASSERT_FALSE(apartment.nil());
    const ULONG count = countOf(apartment);
    {
        CReference<IApartment> found(Registry::manager()->findApartment("tcp://127.0.0.1:7"));
        EXPECT_EQ(static_cast<IApartment*>(found), static_cast<IApartment*>(apartment));
        EXPECT_EQ(countOf(apartment), count + 1);
    }
    // Looked up exactly as registered: no normalisation.
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:07"), nullptr);

    Registry::manager()->removeAllApartments();
    EXPECT_EQ(Registry::manager()->findApartment("tcp://127.0.0.1:7"), nullptr);
    EXPECT_EQ(countOf(apartment), count - 1);  // only the test's reference is left
}

TEST(ApartmentRegistry, DuplicateNodeNameKeepsTheFirstNode) {
    Registry registry;
    CReference<IApartment> apartment(
        Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    ASSERT_FALSE(apartment.nil());
    EXPECT_TRUE(apartment->createApartmentNode("node"));
    CReference<IApartmentNode> first(apartment->findApartmentNode("node"));
    EXPECT_FALSE(apartment->createApartmentNode("node"));
    CReference<IApartmentNode> again(apartment->findApartmentNode("node"));
    EXPECT_EQ(static_cast<IApartmentNode*>(again), static_cast<IApartmentNode*>(first));

    EXPECT_EQ(apartment->findApartmentNode("other"), nullptr);
    EXPECT_TRUE(apartment->destroyApartmentNode("node"));
    EXPECT_FALSE(apartment->destroyApartmentNode("node"));
    EXPECT_EQ(apartment->findApartmentNode("node"), nullptr);
}

class CountedCallback : public TRootStub<IApartmentCallback> {
public:
    void onTimer(unsigned int) override {}
    void onApartmentOffline(const char*) override {}
    void onRawFrameReceived(unsigned int, const void*, unsigned int) override {}
};

TEST(ApartmentRegistry, SetCallbackNullReleasesTheCallback) {
    Registry registry;
    CReference<IApartment> apartment(
        Registry::manager()->createApartment("tcp://127.0.0.1:7", false));
    ASSERT_FALSE(apartment.nil());
    CReference<CountedCallback> callback(new CountedCallback());
    EXPECT_TRUE(apartment->setCallback(callback));
    EXPECT_EQ(countOf(callback), 2u);
    EXPECT_TRUE(apartment->setCallback(nullptr));
    EXPECT_EQ(countOf(callback), 1u);
    EXPECT_TRUE(apartment->setCallback(nullptr));
}

// Reaches the transport's protected conversions.
class TcpApartmentProbe : public CTcpApartment {
public:
    std::string address(const char* url) {
        std::string out = "unchanged";
        EXPECT_TRUE(getPortAddressFromApartmentUrl(url, out));
        return out;
    }
    std::string url(const char* address) {
        std::string out = "unchanged";
        EXPECT_TRUE(getApartmentUrlFromPortAddress(address, out));
        return out;
    }
    CReference<IApartmentSink> sink(APARTMENT_SINK_TYPE type) { return createSink(type); }
};

TEST(ApartmentRegistry, TcpUrlAndAddressConversions) {
    CReference<TcpApartmentProbe> probe(new TcpApartmentProbe());
    EXPECT_EQ(probe->address(nullptr), "0.0.0.0:0");
    EXPECT_EQ(probe->address(""), "0.0.0.0:0");
    EXPECT_EQ(probe->address("tcp://10.1.2.3:4567"), "10.1.2.3:4567");
    EXPECT_EQ(probe->address("TCP://10.1.2.3:4567"), "TCP://10.1.2.3:4567");
    EXPECT_EQ(probe->address("10.1.2.3:4567"), "10.1.2.3:4567");
    EXPECT_EQ(probe->address("tcp://"), "");

    EXPECT_EQ(probe->url(nullptr), "tcp://0.0.0.0:0");
    EXPECT_EQ(probe->url(""), "tcp://0.0.0.0:0");
    EXPECT_EQ(probe->url("10.1.2.3:4567"), "tcp://10.1.2.3:4567");

    EXPECT_EQ(probe->sink(LISTEN_SINK)->sinkType(), LISTEN_SINK);
    EXPECT_EQ(probe->sink(CLIENT_SINK)->sinkType(), CLIENT_SINK);
    EXPECT_EQ(probe->sink(SERVER_SINK)->sinkType(), SERVER_SINK);
    EXPECT_TRUE(probe->sink(INVALID_SINK_TYPE).nil());
    EXPECT_EQ(probe->apartmentType(), TCP_APARTMENT);
}

TEST(ApartmentRegistry, DestroyTwiceAndABusyPortFails) {
    Registry registry;
    CReference<IApartment> apartment = createListening();
    ASSERT_FALSE(apartment.nil());
    apartment->destroyApartment();
    EXPECT_EQ(urlOf(apartment), "");
    apartment->destroyApartment();  // nothing left to do

    // A port that another apartment listens on cannot be bound: no
    // apartment, and the listening one is untouched.
    CReference<IApartment> holder = createListening();
    ASSERT_FALSE(holder.nil());
    const std::string url = urlOf(holder);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Registry::manager()->createApartment(url.c_str(), true), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(urlOf(holder), url);
}

}  // namespace
