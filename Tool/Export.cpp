// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "Records.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

// Marks the end, so that a reader can recognise a complete export. For JSON lines, the row writer
// has already written the end.
void WriteEnd(const Context& context, std::ostream& out, std::size_t rows) {
    if (context.format == Format::CSV) {
        out << "# end of export: " << rows << " rows\r\n";
    }
    out.flush();
}

bool WriteRows(const Context& context, CRecordQuery& query, std::ostream& out) {
    const auto pWriter = MakeRowWriter(context.format, out, CRecordQuery::Columns(true),
                                       &out == &context.out ? context.sink : Sink::PROGRAM);
    std::size_t rows = 0;
    query.Begin(0);
    while (out.good() && query.Step()) {
        pWriter->Add(query.Get());
        ++rows;
    }
    if (out.good()) {
        pWriter->End();
        WriteEnd(context, out, rows);
    }
    return out.good();
}

bool WriteFile(const Context& context, CRecordQuery& query, const std::string& path) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    const bool whole = file.is_open() && WriteRows(context, query, file);
    file.close();
    return whole && !file.fail();
}

// Without this, a power failure after the rename could leave an empty file.
bool Sync(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return synced;
}

// Writes to a temporary file and renames it, so that `path` never contains an incomplete export.
// The process id in its name separates concurrent exports.
bool ReplaceFile(const Context& context, CRecordQuery& query, const std::string& path) {
    const std::string partial = path + ".partial-" + std::to_string(getpid());
    const bool whole = WriteFile(context, query, partial) && Sync(partial) &&
                       std::rename(partial.c_str(), path.c_str()) == 0;
    if (!whole) {
        const int error = errno;
        std::remove(partial.c_str());
        errno = error;
    }
    return whole;
}

// False for pipes and devices, which Export writes to directly.
bool IsReplaceable(const std::string& path) {
    std::error_code ignored;
    const std::filesystem::file_status status = std::filesystem::status(path, ignored);
    return !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
}

}  // namespace

int Export(const Context& context, const ExportOptions& options) {
    CTYDatabase database = OpenForReading(context);
    CRecordQuery query(database, options.filter, true);
    if (options.output == "-") {
        // main() reports a failure of standard output, as for every command.
        WriteRows(context, query, context.out);
        return EXIT_OK;
    }
    errno = 0;
    const bool whole = IsReplaceable(options.output) ? ReplaceFile(context, query, options.output)
                                                     : WriteFile(context, query, options.output);
    if (!whole) {
        context.errors << "tallyra: cannot write " << options.output << ": " << std::strerror(errno)
                       << "\n";
    }
    return whole ? EXIT_OK : EXIT_FAILED;
}
