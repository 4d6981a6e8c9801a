// A load generator for LDAP servers: keeps connections busy with one kind of request,
// checks every answer, and prints one line of JSON. Ends with 1 when an answer was
// wrong, with 2 when it was called wrongly.
#include <cstdio>
#include <stdexcept>

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
    try {
        std::puts(load::toJson(load::run(plan)).c_str());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ldap_load: %s\n", error.what());
        return 1;
    }
}
