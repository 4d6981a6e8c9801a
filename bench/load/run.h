// SPDX-License-Identifier: Apache-2.0
// A load run: connections that keep a server busy, and what comes of it.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/load/plan.h"

namespace load {

// The server's answer was not the expected one, or it went away.
class WrongAnswer : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Figures {
    double seconds = 0;
    std::uint64_t operations = 0;
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;  // received
    double p50 = 0;           // microseconds from a request to its last answer
    double p99 = 0;
    double generatorBusy = 0;         // processor time that the generator took, a second
    std::vector<double> watchedBusy;  // the same of each watched process
};

// Runs the plan: connects, primes, and then measures and reports as often as again()
// says so. Every answer is checked, also the ones that are not measured.
// Throws WrongAnswer, ProtocolError, std::invalid_argument or std::system_error.
void run(const Plan& plan, const std::function<bool()>& again,
         const std::function<void(const Figures&)>& report);

std::string toJson(const Figures& figures);

}  // namespace load
