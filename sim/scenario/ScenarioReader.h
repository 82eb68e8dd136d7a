#ifndef MAVIX_SIM_SCENARIO_SCENARIO_READER_H
#define MAVIX_SIM_SCENARIO_SCENARIO_READER_H

#include "JsonTree.h"
#include "Scenario.h"

namespace MavixSim {

// Reads a scenario as a whole or not at all: throws JsonFault at the first thing that is wrong.
Scenario ReadScenario(const TCJsonTree& tree);

// The members that an object of a scenario may have, for comparison with the schema.
struct ScenarioObject {
    struct Member {
        std::string name;
        bool required;
    };
    std::string name;
    std::vector<Member> members;
};
std::vector<ScenarioObject> ScenarioObjects();

} // namespace MavixSim

#endif
