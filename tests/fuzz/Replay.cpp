// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Runs a fuzz target on every file of a corpus.

#include "Target.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char** argv) try {
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(file), {}};
            if (!file) {
                std::fprintf(stderr, "cannot read %s\n", entry.path().c_str());
                return 1;
            }
            // If the target aborts, the last line names the file.
            std::printf("%s\n", entry.path().c_str());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++files;
        }
    }
    std::printf("%d files replayed\n", files);
    return files > 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
