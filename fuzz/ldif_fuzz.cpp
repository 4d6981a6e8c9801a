// Whatever an object's values are, a reader of LDIF gets them back, and nothing
// else.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "tests/standin/vex_standin.h"
#include "translate/ldif.h"
#include "translate/ldif_reader.h"
#include "vex/handles.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    standin::reset();
    const std::vector<std::string> values = valuesOf(data, size);
    standin::Attribute attribute{"attr", {}};
    for (const std::string& value : values) attribute.values.emplace_back(value);
    const vex::UniqueObject object(standin::makeObject({{"_dn", {"CN=a,DC=x"}}, attribute}));
    const auto lines = readLdif(object_to_ldif(nullptr, object.get(), {}));
    if (lines.size() != values.size() + 1) std::abort();
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (lines[i + 1].name != "attr" || lines[i + 1].value != values[i]) std::abort();
    }
    return 0;
}
