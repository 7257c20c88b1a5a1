// Runs a fuzz target over inputs that are kept, without a fuzzer: no input, then each file that is named or
// lies in a folder that is named. An input that fails ends the process; it is the last one printed.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>

#include "Input.h"

namespace {

void Run(const std::string& bytes) {
    // A block of its own, so that a sanitizer sees what reads past its end.
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
}

std::set<std::filesystem::path> FilesOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path))
        return {path};
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        files.insert(entry.path());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    Run("");
    for (int i = 1; i < argc; ++i)
        for (const std::filesystem::path& path : FilesOf(argv[i])) {
            printf("%s\n", path.c_str());
            fflush(stdout);
            std::ifstream file(path, std::ios::binary);
            if (!file) {
                fprintf(stderr, "cannot be read\n");
                return 1;
            }
            Run(std::string(std::istreambuf_iterator<char>(file), {}));
        }
    return 0;
}
