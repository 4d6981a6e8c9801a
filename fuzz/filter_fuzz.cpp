// SPDX-License-Identifier: Apache-2.0
// Any filter tree either translates or is refused; what is not a name or value of
// the tree is never read.
#include "translate/filter.h"

#include <cstdlib>
#include <span>

#include "translate/filter_builder_testing.h"
#include "vorn/exception.h"

#include "backend/base/slapd.h"

namespace {

const vorn::Properties& map() {
    static vorn::Properties& theOne = [&]() -> vorn::Properties& {
        auto& made = *new vorn::Properties;
        made.parse("t = User\nt.uid = sAMAccountName\nt.dropped =\n", "fuzz");
        return made;
    }();
    return theOne;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FilterBuilder builder;
    const Filter* filter = builder.fromBytes(std::span(data, size));
    std::string name;
    std::string value;
    find_object_type(filter, &name, &value);
    try {
        const std::string text = filter_as_string("t", filter, &map());
        if (!text.empty() && (text.front() != '(' || text.back() != ')')) std::abort();
        if (text.find('\0') != std::string::npos) std::abort();
    } catch (const vorn::VORNException&) {
    }
    return 0;
}
