// SPDX-License-Identifier: Apache-2.0
//
// Runs a fuzzer over kept inputs: files, or folders of files. The exit status is 0 when none of them ends the process.
#include "fuzz_input.h"
#include <filesystem>
#include <fstream>
#include <iterator>

static void replay(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    const fuzz::Bytes input{std::istreambuf_iterator<char>(file), {}};
    fuzz::require(file.good() || file.eof(), path.c_str());
    std::fprintf(stderr, "%s\n", path.c_str());
    (void)LLVMFuzzerTestOneInput(input.data(), input.size());
}

int main(int argc, char **argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            replay(argv[i]);
            ++count;
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            replay(entry.path());
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
