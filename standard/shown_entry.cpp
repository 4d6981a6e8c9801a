// SPDX-License-Identifier: Apache-2.0
#include "standard/shown_entry.h"

#include <algorithm>
#include <set>
#include <utility>

#include "standard/guid.h"
#include "vex/handles.h"
#include "vorn/dn.h"

namespace standard {
namespace {

using Values = AgentObject::Values;

// People without a uidNumber that are members of a group, by account name.
constexpr char kUnnumberedMember[] = "_unnumberedMember";

// "20260102030405.0Z" without its fraction, which slapd's own times never have.
std::string timeText(const std::string& time) {
    const std::size_t dot = time.find('.');
    return dot == std::string::npos ? time : time.substr(0, dot) + "Z";
}

std::string shownValue(Form form, const std::string& value) {
    switch (form) {
        case Form::Uuid:
            return uuidOfGuid(value);
        case Form::Time:
            return timeText(value);
        default:
            return value;
    }
}

Values shownValues(const ShownAttribute& attribute, const AgentObject& object) {
    Values values;
    for (const std::string& source : attribute.sources) {
        for (const std::string& value : object.values(source)) {
            std::string shown = shownValue(attribute.form, value);
            if (std::find(values.begin(), values.end(), shown) == values.end())
                values.push_back(std::move(shown));
        }
    }
    return values;
}

bool isIncomplete(const AgentObject& object) {
    return !object.values(VORN_NSSENTRY_INVALID).empty();
}

// Makes one entry.
class Showing {
  public:
    Showing(const Kind& kind, const AgentObject& object) : m_kind(kind), m_object(object) {}

    std::optional<ShownEntry> run();

  private:
    void readAttributes();
    void addNamingValue();
    void addSurname();
    bool takeClasses();
    void take(const ShownClass& one);
    bool fits(const ShownClass& one);
    void addTheRest();
    void dropWhatNoClassAllows();
    Values* find(std::string_view name);
    bool has(std::string_view name);
    const ShownAttribute* attribute(std::string_view name) const;

    const Kind& m_kind;
    const AgentObject& m_object;
    bool m_incomplete = false;
    ShownEntry m_entry;
    std::set<std::string, vorn::StringCaseLessThan> m_allowed;
};

std::optional<ShownEntry> Showing::run() {
    if (!isShown(m_kind, m_object)) return std::nullopt;
    m_incomplete = isIncomplete(m_object);
    m_entry.dn = shownDn(m_kind, m_object);
    if (m_entry.dn.empty()) return std::nullopt;
    readAttributes();
    addNamingValue();
    if (m_kind.sort == Sort::Person) addSurname();
    if (!takeClasses()) return std::nullopt;
    addTheRest();
    dropWhatNoClassAllows();
    return std::move(m_entry);
}

void Showing::readAttributes() {
    for (const ShownAttribute& one : m_kind.attributes) {
        Values values = shownValues(one, m_object);
        if (!values.empty()) m_entry.attributes.push_back({&one, std::move(values)});
    }
}

// An entry holds the values that its DN begins with (RFC 4512, 2.3).
void Showing::addNamingValue() {
    for (const auto& [name, value] : vorn::DN::firstRdn(m_entry.dn)) {
        const ShownAttribute* named = attribute(name);
        if (named == nullptr) continue;
        if (Values* values = find(named->name)) {
            const bool known = std::any_of(values->begin(), values->end(), [&](const std::string& one) {
                return vorn::equalsIgnoreCase(one, value);
            });
            if (!known) values->push_back(value);
        } else {
            m_entry.attributes.push_back({named, {value}});
        }
    }
}

// Every person has one in LDAP, and few service accounts have one in Active Directory.
void Showing::addSurname() {
    const ShownAttribute* surname = attribute("sn");
    const Values* names = find("cn");
    if (surname == nullptr || names == nullptr || has("sn")) return;
    m_entry.attributes.push_back({surname, {names->front()}});
}

bool Showing::fits(const ShownClass& one) {
    return std::all_of(one.needs.begin(), one.needs.end(),
                       [this](const std::string& need) { return has(need); });
}

// The structural class decides whether there is an entry at all.
bool Showing::takeClasses() {
    const auto structural =
        std::find_if(m_kind.classes.begin(), m_kind.classes.end(),
                     [this](const ShownClass& one) { return one.name == m_kind.structural; });
    const bool whole = structural != m_kind.classes.end() && fits(*structural);
    if (!whole) {
        if (m_kind.fallback.empty() || !fits(m_kind.fallback.back())) return false;
        for (const ShownClass& one : m_kind.fallback) take(one);
    }
    m_entry.structural = whole ? m_kind.structural : m_kind.fallback.back().name;
    for (const ShownClass& one : m_kind.classes) {
        const bool missing = m_incomplete && vorn::stringInList(m_kind.incompleteWithout, one.name, false);
        if (!one.holdsTheRest && !missing && fits(one)) take(one);
    }
    return true;
}

void Showing::take(const ShownClass& one) {
    if (vorn::stringInList(m_entry.classes, one.name, false)) return;
    m_entry.classes.push_back(one.name);
    m_allowed.insert(one.allows.begin(), one.allows.end());
}

void Showing::addTheRest() {
    for (const ShownClass& one : m_kind.classes) {
        if (!one.holdsTheRest) continue;
        const bool wanted =
            std::any_of(m_entry.attributes.begin(), m_entry.attributes.end(), [&](const ShownValues& shown) {
                return !m_allowed.contains(shown.attribute->name) &&
                       vorn::stringInList(one.allows, shown.attribute->name, false);
            });
        if (wanted) take(one);
    }
}

void Showing::dropWhatNoClassAllows() {
    std::erase_if(m_entry.attributes, [this](const ShownValues& shown) {
        return !shown.attribute->operational && !m_allowed.contains(shown.attribute->name);
    });
}

Values* Showing::find(std::string_view name) {
    for (ShownValues& shown : m_entry.attributes)
        if (vorn::equalsIgnoreCase(shown.attribute->name, name)) return &shown.values;
    return nullptr;
}

// A group shows the DNs of those whose names it shows, and of people without numbers.
bool Showing::has(std::string_view name) {
    if (vorn::equalsIgnoreCase(name, "member")) return !memberNames(m_kind, m_object).empty();
    return find(name) != nullptr;
}

const ShownAttribute* Showing::attribute(std::string_view name) const {
    const auto* found = m_kind.find(name);
    if (found == nullptr) return nullptr;
    // Of a type and its subtypes, the type itself.
    for (const std::size_t at : *found)
        if (vorn::equalsIgnoreCase(m_kind.attributes[at].name, name)) return &m_kind.attributes[at];
    return nullptr;
}

}  // namespace

AgentObject::AgentObject(vexSession* session, const vexObject* object) {
    unsigned cursor = 0;
    char* next = nullptr;
    for (vexCode code = vexGetFirstAttribute(session, object, &cursor, &next); code == VEX_OK;
         code = vexGetNextAttribute(session, object, &cursor, &next)) {
        const vex::UniqueString name(std::exchange(next, nullptr));
        vex::BlobList values;
        if (name == nullptr || values.read(session, object, name.get()) != VEX_OK) continue;
        for (int i = 0; i < values.count(); ++i) {
            const vexBlob& value = values.values()[i];
            if (value.data != nullptr)
                add(name.get(), std::string(reinterpret_cast<const char*>(value.data), value.length));
        }
    }
}

const Values& AgentObject::values(const std::string& name) const {
    static const Values none;
    const auto found = m_values.find(name);
    return found == m_values.end() ? none : found->second;
}

const std::string& AgentObject::first(const std::string& name) const {
    static const std::string none;
    const Values& all = values(name);
    return all.empty() ? none : all.front();
}

bool AgentObject::hasClass(std::string_view name) const {
    return vorn::stringInList(values(AD_OBJECT_CLASS), name, false);
}

// An object of a class is one of its superiors, too: the last of its classes that is a
// kind's decides. A computer is never a person.
const Kind* kindOf(const Kinds& kinds, const AgentObject& object) {
    const Values& classes = object.values(AD_OBJECT_CLASS);
    for (auto name = classes.rbegin(); name != classes.rend(); ++name) {
        if (vorn::equalsIgnoreCase(*name, "contact")) return nullptr;
        for (const Kind& kind : kinds) {
            if (!vorn::equalsIgnoreCase(kind.objectClass, *name)) continue;
            return kind.sort == Sort::Person && object.hasClass("computer") ? nullptr : &kind;
        }
    }
    return nullptr;
}

bool isShown(const Kind& kind, const AgentObject& object) {
    return kind.showsIncomplete || !isIncomplete(object);
}

std::string shownDn(const Kind& kind, const AgentObject& object) {
    const std::string& real = object.first(AD_OBJECT_DN_TEXT);
    if (kind.naming.empty()) return real;
    const std::string& name = object.first(kind.naming);
    const std::string parent = vorn::DN::parent(real);
    if (name.empty() || parent.empty()) return real;
    return "cn=" + vorn::DN::escapeValue(name) + "," + parent;
}

std::vector<std::string> memberNames(const Kind& kind, const AgentObject& group) {
    std::vector<std::string> names = group.values("memberUid");
    if (!kind.showsIncomplete) return names;
    const Values& others = group.values(kUnnumberedMember);
    names.insert(names.end(), others.begin(), others.end());
    return names;
}

std::optional<ShownEntry> show(const Kind& kind, const AgentObject& object) {
    return Showing(kind, object).run();
}

}  // namespace standard
