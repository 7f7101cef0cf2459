#include "tests/support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kelto::test {

TempDir::TempDir() : path((std::filesystem::temp_directory_path() / "halvek-test-XXXXXX").string()) {
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + path);
    }
}

TempDir::~TempDir() {
    std::filesystem::remove_all(path);
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
    std::ofstream file(PathOf(name), std::ios::binary);
    file << content;
    return PathOf(name);
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace kelto::test
