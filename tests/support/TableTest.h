// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Test.h"

#ifndef TALLYRA_TESTS_SUPPORT_TABLETEST_H
#define TALLYRA_TESTS_SUPPORT_TABLETEST_H

/// One row of a table of cases; a failing test names it.
template <class Data>
struct Named {
    const char* name;
    Data data;
};
template <class Data>
void PrintTo(const Named<Data>& row, std::ostream* pOut) {
    *pOut << row.name;
}

/// A fixture that runs once for each row, as in
/// INSTANTIATE_TEST_SUITE_P(Table, CSomeTest, testing::ValuesIn(kTable), kByName).
template <class Fixture, class Data>
class CTableTest : public Fixture, public testing::WithParamInterface<Named<Data>> {
  protected:
    const Data& Case() const { return this->GetParam().data; }
};
constexpr auto kByName = [](const auto& info) { return std::string(info.param.name); };

#endif  // TALLYRA_TESTS_SUPPORT_TABLETEST_H
