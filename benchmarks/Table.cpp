// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Table.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

Summary Summary::Of(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

nlohmann::json Summary::ToJson() const {
    return {{"median", median}, {"least", least}, {"most", most}};
}

void WriteJson(const std::string& path, const nlohmann::json& json) {
    std::ofstream file(path);
    file << json.dump(2) << "\n";
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}
