#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/interfaces/IPresetsV2Provider.h"
#include "kelto/interfaces/IRelayV3Provider.h"
#include "kelto/interfaces/ITourProvider.h"
#include "kelto/msgbus/MsgBus.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/unit/platform/interfaces/InterfaceFile.h"

#include <functional>
#include <future>
#include <set>

namespace kelto::interfaces {

namespace {

using test::BusArguments;
using test::ScriptedService;
using Strings = std::vector<std::string>;

/**
 * A provider's service and its client. Every exchange is compared with the interface file: what the client sends, and
 * whether what the test has the service answer is what the file promises.
 */
template <typename Provider>
class ClientFixture : public ::testing::Test {
protected:
    explicit ClientFixture(const std::string& providerName)
        : file(providerName), service(providerName), client(Provider::CreateClient(&bus)) {}

    /** Has a method answer these values; the deed shall call it once, with these arguments. */
    void ExpectExchange(const std::string& method, const BusArguments& arguments, const BusArguments& answer,
                        const std::function<void()>& deed) {
        ASSERT_EQ(file.GetMethods().count(method), 1U) << method;
        EXPECT_EQ(test::SignatureOf(answer), file.GetMethods().at(method).out) << method;
        service.Answer(method, answer);
        const size_t before = service.Calls().size();
        deed();
        ASSERT_EQ(service.Calls().size(), before + 1) << method;
        const ScriptedService::Call call = service.Calls().back();
        EXPECT_EQ(call.interface, file.GetName());
        EXPECT_EQ(call.method, method);
        EXPECT_EQ(call.signature, file.GetMethods().at(method).in) << method;
        EXPECT_EQ(call.arguments, arguments) << method;
        tried.insert(method);
    }

    /** That the tests of this body have tried every method of the interface file. */
    void ExpectAllMethodsTried() const {
        for (const auto& [method, signatures] : file.GetMethods()) {
            EXPECT_EQ(tried.count(method), 1U) << method;
        }
    }

    /** The deed shall fail with the service's error, whatever method it calls. */
    void ExpectError(const std::string& method, const std::function<void()>& deed) {
        service.Fail(method, "com.kelto.Error.Jammed", "the gear is stuck");
        EXPECT_THAT(deed, FailsWith("com.kelto.Error.Jammed: the gear is stuck")) << method;
    }

    const test::PrivateBus daemon;
    msgbus::MsgBus bus;
    const InterfaceFile file;
    ScriptedService service;
    std::unique_ptr<Provider> client;
    std::set<std::string> tried;
};

class AlarmV3Client : public ClientFixture<IAlarmV3Provider> {
protected:
    AlarmV3Client() : ClientFixture("AlarmV3") {}
};

class RelayV3Client : public ClientFixture<IRelayV3Provider> {
protected:
    RelayV3Client() : ClientFixture("RelayV3") {}

    struct Configuration {
        bool result = false;
        bool polarity = false;
        int32_t mode = -1;
        int32_t onIntervalMs = -1;
        int32_t offIntervalMs = -1;
        int32_t pulseCount = -1;
    };

    Configuration GetConfiguration(const std::string& bank, int32_t index) {
        Configuration got;
        got.result = client->GetConfiguration(bank, index, got.polarity, got.mode, got.onIntervalMs, got.offIntervalMs,
                                              got.pulseCount);
        return got;
    }
};

class PresetsV2Client : public ClientFixture<IPresetsV2Provider> {
protected:
    PresetsV2Client() : ClientFixture("PresetsV2") {}
};

class TourClient : public ClientFixture<ITourProvider> {
protected:
    TourClient() : ClientFixture("Tour") {}
};

class MotionStateClient : public ClientFixture<IMotionStateProvider> {
protected:
    MotionStateClient() : ClientFixture("MotionState") {}
};

TEST_F(AlarmV3Client, SendsAndTakesWhatTheInterfaceFileSays) {
    Strings banks;
    ExpectExchange("GetBankNames", {}, {Strings{"Remote", "Local", ""}}, [&] { banks = client->GetBankNames(); });
    EXPECT_THAT(banks, ElementsAre("Remote", "Local", ""));
    ExpectExchange("GetBankNames", {}, {Strings{}}, [&] { banks = client->GetBankNames(); });
    EXPECT_THAT(banks, IsEmpty());
    for (const bool remote : {true, false}) {
        bool answered = !remote;
        ExpectExchange("IsRemote", {std::string("Bänk 1")}, {remote}, [&] { answered = client->IsRemote("Bänk 1"); });
        EXPECT_EQ(answered, remote);
    }
    ExpectAllMethodsTried();
}

TEST_F(AlarmV3Client, AnErrorOfTheServiceComesOutOfEachQuery) {
    ExpectError("GetBankNames", [this] { client->GetBankNames(); });
    ExpectError("IsRemote", [this] { client->IsRemote("Local"); });
}

TEST_F(RelayV3Client, AsksForBanksAsTheInterfaceFileSays) {
    Strings banks;
    ExpectExchange("GetBankNames", {}, {Strings{"Remote", "Local"}}, [&] { banks = client->GetBankNames(); });
    EXPECT_THAT(banks, ElementsAre("Remote", "Local"));
    for (const bool remote : {true, false}) {
        bool answered = !remote;
        ExpectExchange("IsRemote", {std::string("Local")}, {remote}, [&] { answered = client->IsRemote("Local"); });
        EXPECT_EQ(answered, remote);
    }
}

TEST_F(RelayV3Client, ReadsAConfigurationAsTheInterfaceFileSays) {
    for (const bool result : {true, false}) {
        Configuration got;
        ExpectExchange("GetConfiguration", {std::string("Local"), 3}, {result, !result, 2, 100, -200, 7},
                       [&] { got = GetConfiguration("Local", 3); });
        EXPECT_EQ(got.result, result);
        EXPECT_EQ(got.polarity, !result);
        EXPECT_EQ(got.mode, 2);
        EXPECT_EQ(got.onIntervalMs, 100);
        EXPECT_EQ(got.offIntervalMs, -200);
        EXPECT_EQ(got.pulseCount, 7);
    }
}

TEST_F(RelayV3Client, WritesAConfigurationAsTheInterfaceFileSays) {
    for (const bool result : {true, false}) {
        bool answered = !result;
        ExpectExchange("SetConfiguration", {std::string(""), INT32_MIN, result, 1, 2, 3, INT32_MAX}, {result},
                       [&] { answered = client->SetConfiguration("", INT32_MIN, result, 1, 2, 3, INT32_MAX); });
        EXPECT_EQ(answered, result);
    }
}

TEST_F(RelayV3Client, DrivesARelayAsTheInterfaceFileSays) {
    for (const bool result : {true, false}) {
        bool answered = !result;
        ExpectExchange("Activate", {std::string("Local"), 5, 2}, {result},
                       [&] { answered = client->Activate("Local", 5, 2); });
        EXPECT_EQ(answered, result);
    }
}

TEST_F(RelayV3Client, HasNoOtherMethodsInItsInterfaceFile) {
    Strings methods;
    for (const auto& [method, signatures] : file.GetMethods()) {
        methods.push_back(method);
    }
    EXPECT_THAT(methods, ElementsAre("Activate", "GetBankNames", "GetConfiguration", "IsRemote", "SetConfiguration"));
    EXPECT_THAT(file.GetSignals(), IsEmpty());
}

TEST_F(RelayV3Client, AnErrorOfTheServiceComesOutOfEachCall) {
    ExpectError("GetBankNames", [this] { client->GetBankNames(); });
    ExpectError("IsRemote", [this] { client->IsRemote("Local"); });
    ExpectError("GetConfiguration", [this] { GetConfiguration("Local", 0); });
    ExpectError("SetConfiguration", [this] { client->SetConfiguration("Local", 0, false, 0, 0, 0, 1); });
    ExpectError("Activate", [this] { client->Activate("Local", 0, 0); });
}

TEST_F(PresetsV2Client, SendsAndTakesWhatTheInterfaceFileSays) {
    ExpectExchange("GoTo", {std::string("door"), 1.0, 400}, {}, [this] { client->GoTo("door", 1.0, 400); });
    ExpectExchange("GoTo", {std::string(""), 0.125, -900}, {}, [this] { client->GoTo("", 0.125, -900); });
    for (const bool there : {true, false}) {
        bool answered = !there;
        ExpectExchange("IsAt", {std::string("door")}, {there}, [&] { answered = client->IsAt("door"); });
        EXPECT_EQ(answered, there);
    }
    ExpectAllMethodsTried();
    EXPECT_THAT(file.GetSignals(), IsEmpty());
}

TEST_F(PresetsV2Client, AnErrorOfTheServiceComesOutOfEachCall) {
    ExpectError("GoTo", [this] { client->GoTo("door", 1.0, 400); });
    ExpectError("IsAt", [this] { client->IsAt("door"); });
}

TEST_F(TourClient, SendsAndTakesWhatTheInterfaceFileSays) {
    ExpectExchange("Start", {std::string("night"), 900}, {}, [this] { client->Start("night", 900); });
    ExpectAllMethodsTried();
    EXPECT_THAT(file.GetSignals(), IsEmpty());
}

TEST_F(TourClient, AnErrorOfTheServiceComesOut) {
    ExpectError("Start", [this] { client->Start("night", 900); });
}

TEST_F(MotionStateClient, SendsAndTakesWhatTheInterfaceFileSays) {
    for (const int32_t state : {0, 1, -1, INT32_MAX}) {
        int32_t answered = 99;
        ExpectExchange("GetIdleState", {}, {state}, [&] { answered = client->GetIdleState(); });
        EXPECT_EQ(answered, state);
    }
    ExpectAllMethodsTried();
}

TEST_F(MotionStateClient, AnErrorOfTheServiceComesOut) {
    ExpectError("GetIdleState", [this] { client->GetIdleState(); });
}

TEST_F(RelayV3Client, TwoThreadsThatUseOneClientDoNotWaitForEachOther) {
    service.Answer("Activate", {true});
    service.Hold();
    std::future<bool> first = std::async(std::launch::async, [this] { return client->Activate("Local", 1, 3); });
    std::future<bool> second = std::async(std::launch::async, [this] { return client->Activate("Local", 2, 3); });
    EXPECT_TRUE(service.WaitForCalls(2));
    service.Release();
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
}

TEST(Clients, AreMadeWithoutABusWithoutAFailureAndWithoutAConnection) {
    const test::PrivateBus daemon(test::PrivateBus::State::Absent);
    msgbus::MsgBus bus;
    const size_t threads = test::CountThreads();
    const auto alarm = IAlarmV3Provider::CreateClient(&bus);
    const auto motion = IMotionStateProvider::CreateClient(&bus);
    const auto relay = IRelayV3Provider::CreateClient(&bus);
    const auto presets = IPresetsV2Provider::CreateClient(&bus);
    const auto tour = ITourProvider::CreateClient(&bus);
    EXPECT_EQ(test::CountThreads(), threads);
    const auto fails = FailsWith(StartsWith("Cannot open the message bus: "));
    EXPECT_THAT([&] { alarm->GetBankNames(); }, fails);
    EXPECT_THAT([&] { motion->GetIdleState(); }, fails);
    EXPECT_THAT([&] { relay->Activate("Local", 0, 3); }, fails);
    EXPECT_THAT([&] { presets->IsAt("door"); }, fails);
    EXPECT_THAT([&] { tour->Start("night", 900); }, fails);
}

TEST(Clients, FailAtOnceWithoutTheirService) {
    const test::PrivateBus daemon;
    msgbus::MsgBus bus;
    const auto fails = FailsWith(StartsWith("org.freedesktop.DBus.Error.ServiceUnknown: "));
    EXPECT_THAT([&] { IAlarmV3Provider::CreateClient(&bus)->GetBankNames(); }, fails);
    EXPECT_THAT([&] { IMotionStateProvider::CreateClient(&bus)->GetIdleState(); }, fails);
    EXPECT_THAT([&] { IRelayV3Provider::CreateClient(&bus)->GetBankNames(); }, fails);
    EXPECT_THAT([&] { IPresetsV2Provider::CreateClient(&bus)->GoTo("door", 1.0, 400); }, fails);
    EXPECT_THAT([&] { ITourProvider::CreateClient(&bus)->Start("night", 900); }, fails);
}

TEST(InterfaceFiles, NameTheObjectAndTheInterfaceByOneRule) {
    for (const std::string provider :
         {"AlarmV3", "RelayV3", "PresetsV2", "Tour", "MotionState", "RecordingInformation"}) {
        const InterfaceFile file(provider);
        EXPECT_EQ(file.GetName(), "com.kelto." + provider);
        EXPECT_EQ(file.GetObjectPath(), "/com/kelto/" + provider);
    }
}

}  // namespace

}  // namespace kelto::interfaces
