// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_OUTPUTFILE_H
#define TALLYRA_TOOL_OUTPUTFILE_H

#include "RemovalOnSignal.h"

#include <sys/types.h>

#include <array>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>

/// Why a file cannot be written; the text is the reason alone, without the file's name.
class COutputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The file that an export writes. A regular file gets its name in Commit, once it is complete.
/// Pipes and devices are written directly.
///
/// Threads: one.
class COutputFile {
  public:
    /// Opens the file.
    /// @param mode  permissions; without them an existing file keeps its own, and a new one is
    ///              readable by its owner only
    /// @param store  the database that is being read
    /// @throws COutputError  also if the path is a symbolic link, the store, or another database
    COutputFile(const std::string& path, std::optional<mode_t> mode, const std::string& store);
    /// Removes the temporary file unless Commit succeeded. So do SIGHUP, SIGINT and SIGTERM.
    ~COutputFile();
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    bool IsTerminal() const;

    /// Fails like any stream; Commit reports the reason.
    std::ostream& Stream() { return m_Stream; }

    /// Writes everything to the disk and gives a regular file its name.
    /// @throws COutputError
    void Commit();

  private:
    // Writes to a descriptor and remembers why that failed, which std::ofstream does not.
    class CBuffer : public std::streambuf {
      public:
        void Attach(int fd);
        int Error() const { return m_nError; }

      protected:
        int_type overflow(int_type character) override;
        int sync() override;

      private:
        int m_nFd = -1;
        int m_nError = 0;
        std::array<char, 65536> m_Bytes;
    };

    void OpenTemporary();
    void OpenDirectly();
    void SetPermissions();

    const std::string m_strPath;
    CRemovalOnSignal m_Removal;
    std::string m_strTemporary;  ///< empty for pipes and devices, and after Commit
    mode_t m_nMode = 0600;
    uid_t m_nOwner;
    gid_t m_nGroup;
    int m_nFd = -1;
    CBuffer m_Buffer;
    std::ostream m_Stream{&m_Buffer};
};

#endif  // TALLYRA_TOOL_OUTPUTFILE_H
