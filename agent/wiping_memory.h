// Memory of the LDAP library's that is overwritten before it is given back.
//
// The library composes requests in buffers of its own: a bind's stays in one, password
// and all, until its answer has come, and what is freed keeps what stood in it.
#pragma once

namespace vexagent {

// From now on. Called once, before anything else of the library is used; false when it
// was too late.
bool wipeLdapMemory();

}  // namespace vexagent
