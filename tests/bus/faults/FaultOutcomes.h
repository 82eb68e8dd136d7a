#ifndef MAVIX_TEST_FAULT_OUTCOMES_H
#define MAVIX_TEST_FAULT_OUTCOMES_H

#include <string>
#include <vector>

namespace MavixTest {

// What one fault does to an application. The table is what the tests play and what docs/faults.md says.
struct FaultOutcome {
    const char* fault;
    // What distinguishes this row from others of the fault; the fault's defaults when empty.
    const char* variant;
    // The scenario's members behind its format.
    std::string scenario;
    // What successive calls of com.norvale.ITest, function 1, with the bytes "ask" do: "succeeds with 3
    // bytes", "fails", "fails after 25 s". With `opensSession`, what SessionControl__Open does instead:
    // "returns -1".
    std::vector<std::string> calls;
    // The numbers in the payloads of the events of type Data and id 7 that the callback was told, or "none"
    // for an event without payload: "1 0", "0 to 9999".
    std::string events;
    // Log lines of the library, besides those of a start, as "6|text": errors are 6, 4 is information.
    std::vector<std::string> lines;
    // A line that is waited for between two calls, once more each time.
    std::string awaited;
    bool opensSession = false;
    bool stopsTheProcess = false;
    bool isRelease = false; // the build flavour; plain otherwise
    // What `mavixctl call` of the same function says, up to the time where there is one, and its exit code.
    // For `refuse-session` it calls what the library calls. Not played in a build flavour.
    std::string controlAnswer = "3 bytes";
    int controlStatus = 0;
    // Takes the bus library's limit of 25 s.
    bool isSlow = false;
};

const std::vector<FaultOutcome>& FaultOutcomes();

// The numbers of the rows that are slow, or that are not; and a row's name for a test.
std::vector<std::size_t> FaultRows(bool slow);
std::string FaultRowName(std::size_t number);

} // namespace MavixTest

#endif
