// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Runs a fuzz target on every file of a corpus.

#include "Target.h"
#include "TemporaryFolder.h"

int main(int argc, char** argv) {
    Require(argc == 2, "the argument is a folder");
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        // If the target aborts, the last line names the file.
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);
        const std::string bytes = ReadFile(entry.path());
        Require(bytes.size() == entry.file_size(), "the file can be read");
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++files;
    }
    std::printf("%d files replayed\n", files);
    return files > 0 ? 0 : 1;
}
