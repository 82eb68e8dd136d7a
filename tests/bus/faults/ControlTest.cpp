#include "FaultOutcomes.h"
#include "TempFolder.h"
#include "tests/bus/mavixctl/ControlProgram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

// Every row of the table of faults, played against the command-line tool in the sandbox.

namespace MavixTest {

namespace {

class FaultOfControl : public testing::TestWithParam<std::size_t> {};

TEST_P(FaultOfControl, IsToldByMavixctl) {
    const FaultOutcome& row = FaultOutcomes()[GetParam()];
    const MavixTools::TCTempFolder folder;
    const std::string file = folder.Path() + "/scenario.json";
    std::ofstream(file) << "{\"format\":1," << row.scenario << "}";
    TCControlProgram::Options options;
    options.launcher = {MAVIX_TEST_SANDBOX, "--scenario=" + file, "--"};
    const Words call = row.opensSession ? Words{"call", "com.norvale.ISessionControl", "0"}
                                        : Words{"call", "com.norvale.ITest", "1", "hex:61736b"};
    const ControlResult result = RunControl(call, options);
    EXPECT_EQ(row.controlStatus, result.status);
    if (row.controlStatus == 0) {
        EXPECT_EQ("", result.errors);
        EXPECT_EQ(row.controlAnswer + " in ", result.output.substr(0, row.controlAnswer.size() + 4));
    } else {
        EXPECT_EQ("", result.output);
        EXPECT_EQ("mavixctl: " + row.controlAnswer + "\n", result.errors);
    }
}

// The tool itself behaves the same in every build flavour.
std::vector<std::size_t> RowsOfThisProgram() {
    std::vector<std::size_t> rows = FaultRows(MAVIX_TEST_SLOW_FAULTS != 0);
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [](std::size_t row) { return FaultOutcomes()[row].isRelease; }),
               rows.end());
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Table, FaultOfControl, testing::ValuesIn(RowsOfThisProgram()),
                         [](const auto& row) { return FaultRowName(row.param); });

} // namespace

} // namespace MavixTest
