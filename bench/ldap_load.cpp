// SPDX-License-Identifier: Apache-2.0
// A load generator for LDAP servers: keeps connections busy with one kind of request,
// checks every answer, and prints one line of JSON, or one for each line that it reads.
// Ends with 1 when an answer was wrong, with 2 when it was called wrongly.
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "bench/load/plan.h"
#include "bench/load/run.h"

int main(int argc, char** argv) {
    load::Plan plan;
    try {
        plan = load::readPlan(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ldap_load: %s\n%s", error.what(), load::kUsage);
        return 2;
    }
    bool once = true;
    std::string line;
    const auto again = [&] {
        return plan.stepwise ? static_cast<bool>(std::getline(std::cin, line)) : std::exchange(once, false);
    };
    const auto report = [](const load::Figures& figures) {
        std::puts(load::toJson(figures).c_str());
        std::fflush(stdout);
    };
    try {
        load::run(plan, again, report);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ldap_load: %s\n", error.what());
        return 1;
    }
}
