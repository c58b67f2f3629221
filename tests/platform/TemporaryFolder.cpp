// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TemporaryFolder.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

CTemporaryFolder::CTemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "tallyra-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder can be made");
    }
    m_Path = name;
}

CTemporaryFolder::~CTemporaryFolder() {
    std::error_code error;
    fs::remove_all(m_Path, error);
}

void CTemporaryFolder::Write(const std::string& name, const std::string& text) const {
    fs::create_directories((m_Path / name).parent_path());
    std::ofstream(m_Path / name) << text;
}

void CTemporaryFolder::Replace(const std::string& name, const std::string& text) const {
    Write(name + ".new", text);
    fs::rename(m_Path / (name + ".new"), m_Path / name);
}
