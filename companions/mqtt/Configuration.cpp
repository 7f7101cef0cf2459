#include "companions/mqtt/Configuration.h"

#include <algorithm>
#include <exception>

namespace kelto::halvek::mqtt {

Configuration Configuration::Load(const std::string& path, Secrets secrets) {
    const companion::ConfigFile file = companion::ConfigFile::Load(path);
    Configuration configuration;
    configuration.path = path;
    configuration.settings = Settings::Read(file, configuration.findings);
    try {
        const companion::Credentials credentials = companion::Credentials::OfThisProcess();
        if (secrets == Secrets::Wanted || credentials.HasFolder()) {
            configuration.settings.Resolve(credentials, file, configuration.findings);
        }
    } catch (const std::exception& failure) {
        configuration.findings.push_back({true, {1, 1}, failure.what()});
    }
    std::stable_sort(configuration.findings.begin(), configuration.findings.end(),
                     [](const Finding& one, const Finding& other) { return one.place < other.place; });
    return configuration;
}

bool Configuration::HasErrors() const {
    return std::any_of(findings.begin(), findings.end(), [](const Finding& finding) { return finding.isError; });
}

std::string Configuration::Text(const Finding& finding) const {
    return path + ":" + std::to_string(finding.place.line) + ":" + std::to_string(finding.place.column) +
           (finding.isError ? ": error: " : ": warning: ") + finding.text;
}

}  // namespace kelto::halvek::mqtt
