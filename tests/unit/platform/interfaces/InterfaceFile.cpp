#include "tests/unit/platform/interfaces/InterfaceFile.h"

#include "tests/fakes/TempDir.h"

#include <regex>
#include <stdexcept>

namespace kelto::interfaces {

namespace {

/** The value of an attribute of a tag; empty if it has none of that name. */
std::string Attribute(const std::string& tag, const std::string& attribute) {
    std::smatch found;
    return std::regex_search(tag, found, std::regex("\\b" + attribute + "=\"([^\"]*)\"")) ? found[1].str() : "";
}

}  // namespace

InterfaceFile::InterfaceFile(const std::string& provider) {
    const std::string path = INTERFACES_FOLDER "/com.kelto." + provider + ".xml";
    const std::string text = std::regex_replace(test::ReadWholeFile(path), std::regex("<!--[^]*?-->"), "");
    const std::regex tags("<(node|interface|method|signal|arg)\\b[^>]*>");
    std::string method;
    std::string signal;
    for (auto at = std::sregex_iterator(text.begin(), text.end(), tags); at != std::sregex_iterator(); ++at) {
        const std::string tag = at->str();
        const std::string kind = (*at)[1];
        if (kind == "node") {
            objectPath = Attribute(tag, "name");
        } else if (kind == "interface") {
            name = Attribute(tag, "name");
        } else if (kind == "method") {
            method = Attribute(tag, "name");
            methods[method];
            signal.clear();
        } else if (kind == "signal") {
            signal = Attribute(tag, "name");
            signals[signal];
            method.clear();
        } else if (!signal.empty()) {
            signals[signal] += Attribute(tag, "type");
        } else {
            std::string& signature = Attribute(tag, "direction") == "in" ? methods[method].in : methods[method].out;
            signature += Attribute(tag, "type");
        }
    }
    if (name.empty() || methods.empty()) {
        throw std::runtime_error("no interface in " + path);
    }
}

}  // namespace kelto::interfaces
