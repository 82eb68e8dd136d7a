#ifndef MAVIX_SIM_SCENARIO_JUDGEMENT_H
#define MAVIX_SIM_SCENARIO_JUDGEMENT_H

#include "Progress.h"

namespace MavixSim {

// What was expected and what came instead, for people to read, a line each; empty when all was met.
std::string Judge(const Scenario& scenario, const TCProgress& progress);

// What is known of a call that nobody expected.
std::string StrangerText(const TCProgress::Stranger& stranger);

} // namespace MavixSim

#endif
