// SPDX-License-Identifier: Apache-2.0
// Any translation file that can be read is used to the letter: names, values and
// filters come out as a plain look-up in its entries has them, and an object is
// written whole whatever attributes the file names.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "backend/base/settings.h"
#include "translate/filter.h"
#include "translate/filter_builder_testing.h"
#include "translate/ldif.h"
#include "translate/map.h"
#include "vex/object.h"
#include "vex/scripted_agent_testing.h"

#include "backend/base/slapd.h"

namespace {

constexpr char kType[] = "t";
constexpr char kPrefix[] = "t.";

void must(bool holds) {
    if (!holds) std::abort();
}

char folded(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return folded(x) == folded(y); });
}

// What a file's entries say, found by looking at each of them.
class Entries {
  public:
    explicit Entries(const vorn::Properties& map) : m_entries(*map.getMap("")) {}

    std::string find(std::string_view key, std::string_view fallback) const {
        for (const auto& [known, value] : m_entries) {
            if (same(known, key)) return value;
        }
        return std::string(fallback);
    }

    std::string item(const std::string& name, const std::string& assertion) const {
        const std::string mapped = find(kPrefix + name, name);
        return mapped.empty() ? "" : "(" + mapped + "=" + assertion + ")";
    }

    const vorn::Properties::Map& all() const { return m_entries; }

  private:
    const vorn::Properties::Map m_entries;
};

std::string combined(char sign, std::size_t fewest, const std::vector<std::string>& elements) {
    std::string text;
    std::size_t count = 0;
    for (const std::string& element : elements) {
        text += element;
        if (!element.empty()) ++count;
    }
    return count < fewest ? text : std::string{'(', sign} + text + ")";
}

// A filter, and what it must come to with a file's entries.
struct Case {
    const char* filter;
    std::string (*expected)(const Entries& entries);
};

const Case kCases[] = {
    {"(uid=*)", [](const Entries& e) { return e.item("uid", "*"); }},
    {"(uid=a)", [](const Entries& e) { return e.item("uid", e.find("a", "a")); }},
    {"(uid>=7)", [](const Entries& e) { return e.item("uid", e.find("7", "7")); }},
    {"(?cn=\\28)", [](const Entries& e) { return e.item("cn", e.find("\\28", "\\28")); }},
    {"(cn=a*a*)", [](const Entries& e) { return e.item("cn", "a*a*"); }},
    {"(!(uid=a))", [](const Entries& e) { return combined('!', 1, {e.item("uid", e.find("a", "a"))}); }},
    {"(&(objectClass=t)(uid=a)(|(cn=*)(x=*)))",
     [](const Entries& e) {
         const std::string either = combined('|', 2, {e.item("cn", "*"), e.item("x", "*")});
         return combined('&', 2,
                         {e.item("objectClass", e.find("t", "t")), e.item("uid", e.find("a", "a")), either});
     }},
};

const Filter* filterOf(const Case& oneCase) {
    static FilterBuilder& builder = *new FilterBuilder;
    static const std::vector<Filter*>& filters = [&]() -> const std::vector<Filter*>& {
        auto& made = *new std::vector<Filter*>;
        for (const Case& each : kCases) made.push_back(builder.parse(each.filter));
        return made;
    }();
    return filters[static_cast<std::size_t>(&oneCase - kCases)];
}

void translateFilters(const vorn::Properties& map, const Entries& entries) {
    for (const Case& each : kCases) {
        must(filter_as_string(kType, filterOf(each), &map) == each.expected(entries));
    }
}

void lookUp(const vorn::Properties& map, const Entries& entries) {
    must(translation_active(&map) == !entries.all().empty());
    std::size_t below = 0;
    for (const auto& [key, value] : entries.all()) {
        std::string raised = key;
        for (char& c : raised) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        must(translate_name(&map, raised, value + "?") == value);
        if (same(std::string_view(key).substr(0, 2), kPrefix)) ++below;
    }
    const auto part = map.getMap(kPrefix);
    must(part->size() == below);
    for (const auto& [key, value] : *part) must(entries.find(key, value + "?") == value);
}

const vexObject* person() {
    static const vexObject& theOne = []() -> const vexObject& {
        const std::string bytes = vextest::packed(vextest::person("a"));
        return *new vexObject{
            vex::ObjectRef::copyOf({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()})};
    }();
    return &theOne;
}

void writeObject(vorn::Properties* map) {
    LdifRequest request;
    request.objectType = kType;
    gTranslationMap = map;
    const std::string ldif = object_to_ldif(nullptr, person(), request);
    gTranslationMap = nullptr;
    must(ldif.starts_with("dn:") && ldif.ends_with('\n'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vorn::Properties map;
    try {
        map.parse({reinterpret_cast<const char*>(data), size}, "fuzz");
    } catch (const vorn::PropertiesException&) {
        return 0;
    }
    const Entries entries(map);
    lookUp(map, entries);
    translateFilters(map, entries);
    writeObject(&map);
    return 0;
}
