// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "TimeText.h"

namespace {

// Never creates a store, because the service could not write to a file that another user owns. A
// running service uses the new policy from the next request on.
CTYDatabase OpenForWriting(const Context& context) {
    OpenForReading(context);
    return CTYDatabase(context.db, CTYDatabase::Mode::READ_WRITE);
}

}  // namespace

int ListPolicies(const Context& context) {
    CTYDatabase database = OpenForReading(context);
    CTYStatement statement(database,
                           "SELECT application, value, changed FROM policies ORDER BY application");
    const auto pWriter = MakeWriter(context, {"application", "policy", "changed"});
    while (statement.Step()) {
        pWriter->Add(
            {std::string(statement.Text(0)), statement.Int(1), FormatTime(statement.Int(2))});
    }
    pWriter->End();
    return EXIT_OK;
}

int SetPolicy(const Context& context, const std::string& application, int value) {
    CTYDatabase database = OpenForWriting(context);
    CTYStatement(database,
                 "INSERT INTO policies(application, value, changed) VALUES(?, ?, ?) "
                 "ON CONFLICT(application) DO UPDATE SET value = excluded.value, "
                 "changed = excluded.changed")
        .Run(application, value, context.now);
    return EXIT_OK;
}

int UnsetPolicy(const Context& context, const std::string& application) {
    CTYDatabase database = OpenForWriting(context);
    CTYStatement(database, "DELETE FROM policies WHERE application = ?").Run(application);
    if (database.Changes() == 0) {
        context.errors << "tallyra: no policy for " << application << "\n";
        return EXIT_NOT_FOUND;
    }
    return EXIT_OK;
}
