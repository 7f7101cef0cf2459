#pragma once

#include "env/HandlerRegistry.h"
#include "handler/EventHandler.h"
#include "kelto/core/IniFile.h"
#include "monitor/EventMonitor.h"
#include "tests/fakes/ProbeSource.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Journal.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek {

/**
 * An event monitor with probes for sources and handlers; all that happens to them stands in one journal.
 *
 * The source types "A", "B" and "C" are probes of that name, and the message-bus source that every configuration makes
 * is left out. The handler types "Probe", "Other" and the always-on "Always" are recording handlers; what else a test
 * needs it adds itself.
 */
class MonitorFixture : public ::testing::Test {
protected:
    using SourceCreator = std::function<std::unique_ptr<EventSource>(HalvekEnv*)>;
    using HandlerCreator = std::unique_ptr<EventHandler> (*)(HalvekEnv*);

    MonitorFixture();
    ~MonitorFixture() override;

    static core::IniFile MakeIni(const core::IniFile::Groups& groups);

    /** A monitor of these types of sources and handlers, not configured. */
    std::unique_ptr<EventMonitor> MakeMonitor();

    /** A creator of probe sources that are reached by their name. */
    SourceCreator ProbeCreator(const std::string& name, test::ProbeSource::Actions actions = {});

    /** Makes a source type known. */
    void AddSourceType(const std::string& type, const SourceCreator& creator);

    /** Makes a source type known that is a probe of its name. */
    void AddProbe(const std::string& type, test::ProbeSource::Actions actions = {}) {
        AddSourceType(type, ProbeCreator(type, std::move(actions)));
    }

    /** Leaves a source type to the real factory. */
    void UseRealSourceType(const std::string& type);

    /** Makes a handler type known, at the front of the registry. */
    void AddHandlerType(const char* name, HandlerCreator creator, int32_t kind = 0);

    /** The probe source of that name made last. */
    test::ProbeSource& Source(const std::string& name) { return *sources.at(name); }

    /** The handlers of that type in the order in which they were made; some of them may be gone. */
    static std::vector<test::RecordingHandler*>& Handlers(const std::string& type) { return handlers[type]; }

    /** How many handlers there are now. */
    static int CountLiveHandlers() { return liveHandlers; }

    /** Fires one event of a probe source. */
    void Fire(const std::string& name, const std::string& eventType = "Test");

    /** The journal's entries that contain a text. */
    static std::vector<std::string> EntriesWith(const std::string& part);

    /** A handler that tells in the journal what happens to it. */
    class JournalHandler;

    static test::Journal journal;

    const test::LeftDescriptorsClosed leftDescriptorsClosed;
    const test::TempDir folder;
    test::LogCapture log{core::LogLevel::Debug};
    HandlerRegistry registry;
    std::unique_ptr<EventMonitor> monitor;

private:
    static std::map<std::string, std::vector<test::RecordingHandler*>> handlers;
    static std::atomic<int> liveHandlers;

    std::unique_ptr<EventSource> CreateSource(const std::string& type, HalvekEnv* env) const;

    std::map<std::string, SourceCreator> creators;
    std::map<std::string, test::ProbeSource*> sources;
    std::vector<std::unique_ptr<HandlerRegistration>> registrations;
};

class MonitorFixture::JournalHandler : public test::RecordingHandler {
public:
    explicit JournalHandler(const std::string& handlerType, std::function<void()> onConfigure = nullptr);
    ~JournalHandler() override;

    void Configure(const core::IniFile::Group& group) override;

private:
    const std::string type;
    const std::function<void()> action;
};

}  // namespace kelto::halvek
