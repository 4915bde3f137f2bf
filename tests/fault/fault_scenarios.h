// The representative transfers that faults are injected into.
#ifndef TESTS_FAULT_FAULT_SCENARIOS_H
#define TESTS_FAULT_FAULT_SCENARIOS_H

#include <functional>
#include <string>
#include <vector>

#include "tests/fault/fault_run.h"

struct scenario {
    std::string name;
    // Starts the servers; what it returns runs once per point, in a fresh directory.
    std::function<std::function<void(fault_run&)>()> make;
};

const std::vector<scenario>& all_scenarios();

#endif
