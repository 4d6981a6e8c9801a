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
    std::lock_guard guard(m_lock);
    return m_options.set(option, value);
}

vex::Options vexSession::options() const {
    std::lock_guard guard(m_lock);
    return m_options;
}

vexCode vexSession::succeeded(vexCode code) {
    std::lock_guard guard(m_lock);
    m_errorState = VEX_NO_SUCH_ATTRIBUTE;
    return code;
}

vexCode vexSession::notAnswered(vexCode code) {
    std::lock_guard guard(m_lock);
    m_errorState = VEX_BROKEN_SESSION;
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
    std::lock_guard guard(m_lock);
    m_errorState = VEX_OK;
    m_error = std::move(error);
    return response.code();
}

vexCode vexSession::lastError(vex::ProtocolError& error) const {
    std::lock_guard guard(m_lock);
    if (m_errorState == VEX_OK) error = m_error;
    return m_errorState;
}
