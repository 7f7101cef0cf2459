#include "companions/ctl/EventPipeSetting.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/Store.h"
#include "companions/ctl/StoreLocation.h"
#include "companions/ctl/Terminal.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "source/EventServerSource.h"

namespace kelto::halvek::ctl {

namespace {

constexpr const TextKey& pathKey = source::EventServerSource::keys.Text("Path");

std::string Read(const std::string& store) {
    const std::string group = std::string(EventMonitor::serverGroup) + "/Pipe";
    try {
        const core::IniFile settings = Store::Read(store).Parse();
        std::string path = pathKey.absent;
        core::IniFile::TryGetValueFromGroup(settings.FindGroup(group), pathKey.name, path);
        return path;
    } catch (const osa::Exception& malformed) {
        throw Failure(malformed.what());
    }
}

}  // namespace

std::string EventPipeSetting::Find(const Invocation& invocation, const StoreLocation& location) {
    try {
        return Read(location.GetPath());
    } catch (const Failure& failure) {
        if (invocation.settings) {
            throw;
        }
        Terminal::Complain(std::string(failure.what()) + "; taking " + pathKey.absent);
        return pathKey.absent;
    }
}

}  // namespace kelto::halvek::ctl
