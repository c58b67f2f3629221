// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "OutputFile.h"
#include "Records.h"

namespace {

// Marks the end, so that a reader can recognise a complete export. For JSON lines, the row writer
// has already written the end.
void WriteEnd(const Context& context, std::ostream& out, std::size_t rows) {
    if (context.format == Format::CSV) {
        out << "# end of export: " << rows << " rows\r\n";
    }
    out.flush();
}

void WriteRows(const Context& context, CRecordQuery& query, std::ostream& out) {
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
    try {
        COutputFile file(options.output, options.mode);
        WriteRows(context, query, file.Stream());
        file.Commit();
        return EXIT_OK;
    } catch (const COutputError& error) {
        context.errors << "tallyra: cannot write " << options.output << ": " << error.what()
                       << "\n";
        return EXIT_FAILED;
    }
}
