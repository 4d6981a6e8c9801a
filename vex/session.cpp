// SPDX-License-Identifier: Apache-2.0
#include "vex/session.h"

#include "vorn/numbers.h"
#include "vorn/settings.h"

namespace vex {
namespace {

// A time that is no number of seconds from 1 to a day is as good as not set.
Milliseconds timeoutFrom(const std::string& text) {
    constexpr int kLongest = 24 * 60 * 60;
    const auto seconds = vorn::parseNumber<int>(text);
    const bool isGood = seconds && *seconds >= 1 && *seconds <= kLongest;
    return std::chrono::seconds(isGood ? *seconds : VEX_DEADLINE_SECONDS);
}

Endpoint endpointFrom(const vorn::Properties& settings) {
    return {vorn::loadSetting(vorn::SETTING_AGENT_SOCKET, settings),
            timeoutFrom(vorn::loadSetting(vorn::SETTING_AGENT_TIMEOUT, settings))};
}

// What the thread read last, and of which settings: each session begins with it.
struct LastEndpoint {
    std::uint64_t version = 0;
    Endpoint endpoint{};
};

}  // namespace

const Endpoint& configuredEndpoint() {
    thread_local LastEndpoint last;
    const vorn::Properties& settings = vorn::Props(false, false);
    const std::uint64_t version = settings.version();
    if (last.version != version) last = {version, endpointFrom(settings)};
    return last.endpoint;
}

}  // namespace vex

bool vexSession::setOption(int option, std::int32_t value) {
    return m_options.lock()->set(option, value);
}

vex::Options vexSession::options() const {
    return *m_options.lock();
}

vexCode vexSession::succeeded(vexCode code) {
    m_lastError.lock()->state = VEX_NO_SUCH_ATTRIBUTE;
    return code;
}

vexCode vexSession::notAnswered(vexCode code) {
    m_lastError.lock()->state = VEX_BROKEN_SESSION;
    return code;
}

vexCode vexSession::answered(const vex::wire::Response& response) {
    if (response.code() == VEX_OK) return succeeded();
    vex::ProtocolError error{VEX_ERR_AGENT, response.code(), std::nullopt};
    if (const auto* told = response.error()) {
        error.system = told->system();
        error.code = told->code();
        if (told->text()) error.text.emplace(told->text()->c_str());
    }
    *m_lastError.lock() = {VEX_OK, std::move(error)};
    return response.code();
}

vexCode vexSession::lastError(vex::ProtocolError& error) const {
    const auto last = m_lastError.lock();
    if (last->state == VEX_OK) error = last->error;
    return last->state;
}
