// Attributes that never leave the agent.
#pragma once

#include <string_view>

namespace vexagent {

// Whether an attribute holds a secret, or belongs to the database itself (its
// name begins with "@"): it is not returned, not matched by filters and not
// listed. Names are compared without regard to case, and an attribute option
// (";binary") does not hide one.
bool isSecretAttribute(std::string_view name);

// Whether a filter's text names such an attribute, so that it is not logged.
bool mentionsSecret(std::string_view filter);

}  // namespace vexagent
