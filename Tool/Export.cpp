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

// CSV has no place for it but a line of its own; JSON lines bring theirs with them.
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

// A power failure must not leave the name without all of the content.
bool Sync(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return synced;
}

// Under its own name there is only a whole one. Two at once do not write to the same file.
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

// A pipe or a device is written to and not replaced.
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
        // A failed output is told with every command's.
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
