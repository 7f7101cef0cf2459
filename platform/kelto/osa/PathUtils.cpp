#include "kelto/osa/PathUtils.h"

#include <cstdlib>
#include <ctime>
#include <memory>

namespace kelto::osa {

namespace {

constexpr size_t longestFileName = 65536;

std::string_view Basename(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

/** Position of the "." that starts the extension, npos if the name has none. */
size_t FindExtension(std::string_view name) {
    const size_t dot = name.rfind('.');
    return dot == 0 ? std::string_view::npos : dot;
}

}  // namespace

std::string PathUtils::RealPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr), std::free);
    return resolved == nullptr ? std::string() : std::string(resolved.get());
}

std::string PathUtils::PathConcat(std::string_view directory, std::string_view name) {
    while (!directory.empty() && directory.back() == '/') {
        directory.remove_suffix(1);
    }
    while (!name.empty() && name.front() == '/') {
        name.remove_prefix(1);
    }
    std::string path;
    path.reserve(directory.size() + 1 + name.size());
    path.append(directory).append(1, '/').append(name);
    return path;
}

std::string PathUtils::FormatFileName(const std::string& pattern) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    // strftime returns 0 both for an empty result and for a full buffer; a blank at the end tells them apart.
    const std::string format = pattern + " ";
    for (size_t size = 256; size <= longestFileName; size *= 4) {
        std::string name(size, '\0');
        const size_t length = strftime(name.data(), name.size(), format.c_str(), &local);
        if (length > 0) {
            name.resize(length - 1);
            return name;
        }
    }
    return {};
}

std::string PathUtils::Dirname(std::string_view path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    return std::string(slash == 0 ? "/" : path.substr(0, slash));
}

std::string PathUtils::BasenameWithoutExtension(std::string_view path) {
    const std::string_view name = Basename(path);
    return std::string(name.substr(0, FindExtension(name)));
}

std::string PathUtils::FileExt(std::string_view path) {
    const std::string_view name = Basename(path);
    const size_t dot = FindExtension(name);
    return dot == std::string_view::npos ? std::string() : std::string(name.substr(dot + 1));
}

}  // namespace kelto::osa
