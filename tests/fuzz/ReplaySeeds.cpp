#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
}

}  // namespace

/** Runs a fuzz target over each file of a folder. What does not hold aborts; a folder without a file is a failure. */
int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " FOLDER" << std::endl;
        return 2;
    }
    std::vector<std::filesystem::path> paths(std::filesystem::directory_iterator(argv[1]), {});
    std::sort(paths.begin(), paths.end());
    for (const std::filesystem::path& path : paths) {
        std::cout << path.filename().string() << std::endl;
        Replay(path);
    }
    std::cout << paths.size() << " seeds" << std::endl;
    return paths.empty() ? 1 : 0;
}
