// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "Records.h"

#include <cstdio>
#include <fstream>

namespace {

// CSV has no place for it but a line of its own; JSON lines bring theirs with them.
void WriteEnd(const Context& context, std::ostream& out, std::size_t rows) {
    if (context.format == Format::CSV) {
        out << "# end of export, " << rows << " rows\r\n";
    }
    out.flush();
}

bool WriteTo(const Context& context, const ExportOptions& options, std::ostream& out) {
    CTYDatabase database = OpenForReading(context);
    CRecordQuery query(database, true);
    const auto pWriter = MakeRowWriter(context.format, out, CRecordQuery::Columns(true), false);
    std::size_t rows = 0;
    query.Begin(options.filter, 0);
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

}  // namespace

int Export(const Context& context, const ExportOptions& options) {
    if (options.output == "-") {
        if (!WriteTo(context, options, context.out)) {
            context.errors << "tallyra: the export was cut off\n";
            return EXIT_FAILED;
        }
        return EXIT_OK;
    }
    // Under its own name there is only a whole one.
    const std::string partial = options.output + ".partial";
    std::ofstream file(partial, std::ios::binary | std::ios::trunc);
    bool whole = file.is_open() && WriteTo(context, options, file);
    file.close();
    whole = whole && !file.fail() && std::rename(partial.c_str(), options.output.c_str()) == 0;
    if (!whole) {
        context.errors << "tallyra: cannot write " << options.output << ", what there is of it is "
                       << partial << "\n";
    }
    return whole ? EXIT_OK : EXIT_FAILED;
}
