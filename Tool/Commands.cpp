// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "StoreAccess.h"
#include "TYSchema.h"
#include "TYStorePath.h"
#include "TextSearch.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

std::string DescribeReadError(const std::string& db, const CTYDatabaseError& error) {
    const std::string text = error.what();
    const std::string reason = text.rfind(db, 0) == 0 ? text : db + ": " + text;
    // Reading a WAL database needs its -wal and -shm files. Without write access they cannot be
    // created; they exist while the service runs.
    const bool needsService = error.Kind() == SQLITE_READONLY;
    return "cannot read " + reason +
           (needsService ? "; without write access it is readable only while tallyra-service runs"
                         : "");
}

}  // namespace

CTYDatabase OpenForReading(const Context& context) {
    if (IsServerUrl(context.db)) {
        throw CTYDatabaseError(SQLITE_CANTOPEN,
                               "only kpi and report can read the database of a fleet");
    }
    if (const auto obstacle = ObstacleToReading(context.db)) {
        throw CTYDatabaseError(SQLITE_CANTOPEN, *obstacle);
    }
    try {
        CTYDatabase database(context.db, CTYDatabase::Mode::READ_ONLY);
        CheckSchema(database);
        AddTextSearch(database);
        return database;
    } catch (const CTYDatabaseError& error) {
        throw CTYDatabaseError(error.Code(), DescribeReadError(context.db, error));
    }
}

CTYDatabase OpenForWriting(const Context& context) {
    // First: reading may need to write as well, and would fail with another text.
    if (const auto obstacle = ObstacleToWriting(context.db)) {
        throw CTYDatabaseError(SQLITE_READONLY, *obstacle);
    }
    OpenForReading(context);
    return CTYDatabase(context.db, CTYDatabase::Mode::READ_WRITE);
}

std::size_t WidthOfOutput(const Context& context) {
    constexpr std::size_t kOfPrograms = 160;
    if (context.sink == Sink::PROGRAM) {
        return kOfPrograms;
    }
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

RowStyle StyleOf(const Context& context) {
    return {.format = context.format,
            .sink = context.sink,
            .zone = context.zone,
            .safeCsv = context.safeCsv,
            .width = WidthOfOutput(context)};
}

std::unique_ptr<IRowWriter> MakeWriter(const Context& context, std::vector<std::string> columns) {
    return MakeRowWriter(context.out, std::move(columns), StyleOf(context));
}

void EndRows(const Context& context, IRowWriter& writer, const char* pNothing) {
    writer.End();
    if (writer.Rows() == 0 && context.format == Format::TABLE) {
        context.errors << "tallyra: " << pNothing << "\n";
    }
}
