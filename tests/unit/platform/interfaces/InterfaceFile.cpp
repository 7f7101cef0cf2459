#include "tests/unit/platform/interfaces/InterfaceFile.h"

#include "tests/support/TempDir.h"

#include <stdexcept>
#include <vector>

namespace kelto::interfaces {

namespace {

/** All tags in their order, without their brackets, "arg name="bank" type="s"/" for instance; no comments. */
std::vector<std::string> Tags(const std::string& text) {
    std::vector<std::string> tags;
    for (size_t begin = text.find('<'); begin != std::string::npos; begin = text.find('<', begin)) {
        const bool comment = text.compare(begin, 4, "<!--") == 0;
        const size_t end = comment ? text.find("-->", begin) : text.find('>', begin);
        if (!comment) {
            tags.push_back(text.substr(begin + 1, end - begin - 1));
        }
        begin = end;
    }
    return tags;
}

/** The value of an attribute of a tag; empty if it has none of that name. */
std::string Attribute(const std::string& tag, const std::string& attribute) {
    const std::string opening = " " + attribute + "=\"";
    const size_t begin = tag.find(opening);
    if (begin == std::string::npos) {
        return "";
    }
    const size_t value = begin + opening.size();
    return tag.substr(value, tag.find('"', value) - value);
}

}  // namespace

InterfaceFile::InterfaceFile(const std::string& provider) {
    const std::string path = INTERFACES_FOLDER "/com.kelto." + provider + ".xml";
    std::string method;
    std::string signal;
    for (const std::string& tag : Tags(test::ReadWholeFile(path))) {
        const std::string kind = tag.substr(0, tag.find(' '));
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
        } else if (kind == "arg" && !signal.empty()) {
            signals[signal] += Attribute(tag, "type");
        } else if (kind == "arg") {
            std::string& signature = Attribute(tag, "direction") == "in" ? methods[method].in : methods[method].out;
            signature += Attribute(tag, "type");
        }
    }
    if (name.empty() || methods.empty()) {
        throw std::runtime_error("no interface in " + path);
    }
}

}  // namespace kelto::interfaces
