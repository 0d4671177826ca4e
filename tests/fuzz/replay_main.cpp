// Runs a fuzz target over the files of the folders that are named, each in a block of exactly its
// size. Exit status 0 when there was at least one file; a broken promise ends the program.
#include <filesystem>
#include <vector>

#include "fuzz_target.h"

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> seeds;
    for (int n = 1; n < argc; ++n) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[n])) {
            seeds.push_back(entry.path());
        }
    }
    std::sort(seeds.begin(), seeds.end());
    for (const std::filesystem::path& seed : seeds) {
        (void)fprintf(stderr, "%s\n", seed.filename().c_str());
        const std::string bytes = fuzz::get_file(seed.c_str());
        const std::vector<uint8_t> block(bytes.begin(), bytes.end());
        (void)LLVMFuzzerTestOneInput(block.data(), block.size());
    }
    (void)fprintf(stderr, "%zu seeds\n", seeds.size());
    return seeds.empty() ? 1 : 0;
}
