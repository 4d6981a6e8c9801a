// SPDX-License-Identifier: Apache-2.0
// Whatever an object's values are, a reader of LDIF gets them back, and nothing
// else.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "translate/ldif.h"
#include "translate/ldif_reader_testing.h"
#include "vex/handles.h"
#include "vex/object.h"
#include "vex/scripted_agent_testing.h"

namespace {

// The input as values: each begins with its length.
std::vector<std::string> valuesOf(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> values;
    while (size > 0) {
        const std::size_t length = std::min<std::size_t>(data[0], size - 1);
        values.emplace_back(reinterpret_cast<const char*>(data) + 1, length);
        data += length + 1;
        size -= length + 1;
    }
    return values;
}

vex::UniqueObject objectOf(const std::vector<std::string>& values) {
    const std::string bytes = vextest::packed({{"_dn", {"CN=a,DC=x"}}, {"attr", values}});
    return vex::UniqueObject(new vexObject{
        vex::ObjectRef::copyOf({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()})});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> values = valuesOf(data, size);
    const auto lines = readLdif(object_to_ldif(nullptr, objectOf(values).get(), {}));
    if (lines.size() != values.size() + 1) std::abort();
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (lines[i + 1].name != "attr" || lines[i + 1].value != values[i]) std::abort();
    }
    return 0;
}
