#include "FaultOutcomes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

// The page about faults says what the table says, row by row.

namespace MavixTest {

namespace {

std::string Joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : "<br>") + text;
    }
    return all;
}

std::string EventsCell(const FaultOutcome& row) {
    return row.stopsTheProcess ? "an assertion stops the process" : row.events;
}

std::string LogCell(const FaultOutcome& row) {
    std::vector<std::string> cells;
    for (const std::string& line : row.lines) {
        cells.push_back((line[0] == '6' ? "error `" : "information `") + line.substr(2) + "`");
    }
    return Joined(cells);
}

std::string ControlCell(const FaultOutcome& row) {
    return row.isRelease ? "" : std::to_string(row.controlStatus) + ": " + row.controlAnswer;
}

std::string RowText(const FaultOutcome& row) {
    const std::string variant = *row.variant == '\0' ? "" : std::string(", ") + row.variant;
    return "| `" + std::string(row.fault) + "`" + variant + " | " + Joined(row.calls) + " | " +
           EventsCell(row) + " | " + LogCell(row) + " | " + ControlCell(row) + " |";
}

TEST(FaultPage, SaysWhatTheTableSays) {
    std::vector<std::string> expected;
    for (const FaultOutcome& row : FaultOutcomes()) {
        expected.push_back(RowText(row));
    }
    std::vector<std::string> written;
    std::ifstream page(MAVIX_TEST_FAULT_PAGE);
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("| `", 0) == 0) {
            written.push_back(line);
        }
    }
    EXPECT_THAT(written, testing::ElementsAreArray(expected));
}

} // namespace

} // namespace MavixTest
