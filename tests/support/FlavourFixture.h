#ifndef MAVIX_TEST_FLAVOUR_FIXTURE_H
#define MAVIX_TEST_FLAVOUR_FIXTURE_H

#include "ChildProgram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace MavixTest {

// For tests whose child programs need a private /etc.
class FlavourFixture : public testing::Test {
protected:
    void SetUp() override {
        if (!CanChooseFlavour()) {
            GTEST_SKIP() << noFlavourReason;
        }
    }
};

// How often the child's log has the line of a failed check, with any line number.
inline std::size_t CountAssertions(const ChildResult& result, const std::string& file,
                                   const std::string& expression, const std::string& message = "") {
    const std::string before =
        "6|MAVIX_API|MavixAssert: TCApiPrintMessage|MAVIX Assertion failed [" + file + ":";
    const std::string after = ":" + expression + (message.empty() ? "]\n" : "]: " + message + "\n");
    std::size_t count = 0;
    for (std::size_t at = result.errors.find(before); at != std::string::npos;
         at = result.errors.find(before, at)) {
        at += before.size();
        const std::size_t end = result.errors.find_first_not_of("0123456789", at);
        if (end != std::string::npos && end > at && result.errors.compare(end, after.size(), after) == 0) {
            ++count;
        }
    }
    return count;
}

inline bool HasAssertion(const ChildResult& result, const std::string& file, const std::string& expression,
                         const std::string& message = "") {
    return CountAssertions(result, file, expression, message) != 0;
}

// A text with "N" for the numbers of the lines by which a child says that it leaves a function after a failed
// check.
inline std::string WithoutLineNumbers(std::string text) {
    const std::string before = ", line ";
    for (std::size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
        at += before.size();
        const std::size_t end = std::min(text.find_first_not_of("0123456789", at), text.size());
        if (end > at) {
            text.replace(at, end - at, "N");
        }
    }
    return text;
}

// Whether the child said on standard output that it leaves a function after a failed check.
inline bool HasAssertLine(const ChildResult& result, const std::string& function) {
    const std::string line = "\nASSERT!!! - function " + function + ", line N\n";
    return ("\n" + WithoutLineNumbers(result.output)).find(line) != std::string::npos;
}

} // namespace MavixTest

#endif
