// SPDX-License-Identifier: Apache-2.0
#include "standard/kinds_of_map.h"

#include <algorithm>
#include <set>
#include <utility>

#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace standard {
namespace {

constexpr char kShowIncomplete[] = "entries.without.numbers";
constexpr char kShadowOfAccount[] = "shadow.of.account";
constexpr char kUniqueName[] = "sAMAccountName";
constexpr char kTheRest[] = "adObject";

using Names = std::vector<std::string>;
using NameSet = std::set<std::string, vorn::StringCaseLessThan>;

struct SortRules {
    std::string_view objectClass;
    Sort sort;
    std::string_view condition;
    std::string_view structural;           // where the map has none
    std::string_view fallback;             // for an entry that lacks what the structural one needs
    std::vector<std::string> unixClasses;  // those that an incomplete entry has not
};

// A computer is a user, too, and so is a service's account: only the category tells.
const std::vector<SortRules>& sortRules() {
    static const std::vector<SortRules> rules = {
        {"User",
         Sort::Person,
         "(&(objectCategory=Person)(objectClass=user))",
         "inetOrgPerson",
         "",
         {"posixAccount", "shadowAccount"}},
        {"Group", Sort::Group, "(objectClass=group)", "groupOfNames", "groupOfMembers", {"posixGroup"}},
        {"Computer", Sort::Host, "(objectClass=computer)", "device", "", {}},
        {"nisNetgroup", Sort::Netgroup, "(objectClass=nisNetgroup)", "nisNetgroup", "", {}},
    };
    return rules;
}

SortRules rulesOf(const std::string& objectClass) {
    for (const SortRules& rules : sortRules())
        if (vorn::equalsIgnoreCase(rules.objectClass, objectClass)) return rules;
    return {objectClass, Sort::Other, "", "", "", {}};
}

// One of the map's classes.
struct MapClass {
    std::string name;
    std::string category;
    std::string origin;  // "FILE:LINE"
    std::vector<std::pair<std::string, std::string>>
        sources;  // LDAP name, the agent's; the map's keys hold the origin
};

long lineOf(const std::string& origin) {
    return vorn::parseNumber<long>(std::string_view(origin).substr(origin.rfind(':') + 1)).value_or(0);
}

std::vector<MapClass> classesOf(const vorn::Properties& map) {
    std::vector<MapClass> classes;
    const auto entries = map.getMap("");
    for (const auto& [key, value] : *entries) {
        if (key.find('.') != std::string::npos || value.empty()) continue;
        MapClass one{key, value, map.origin(key), {}};
        const auto lines = map.getMap(key + ".");
        for (const auto& [line, source] : *lines)
            one.sources.emplace_back(line.substr(key.size() + 1), source);
        classes.push_back(std::move(one));
    }
    std::stable_sort(classes.begin(), classes.end(), [](const MapClass& a, const MapClass& b) {
        return lineOf(a.origin) < lineOf(b.origin);
    });
    return classes;
}

// Makes one kind.
class KindMaker {
  public:
    KindMaker(const Schema& schema, const vorn::Properties& map, Names* warnings)
        : m_schema(schema), m_map(map), m_warnings(warnings) {}

    Kind make(const std::string& category, const std::vector<MapClass>& classes);

  private:
    ClassFacts factsOf(const std::string& name, const std::string& origin) const;
    void readClasses(const std::vector<MapClass>& classes);
    void chooseStructural(const std::vector<MapClass>& classes);
    void readLines(const MapClass& one);
    void addClasses();
    void addChain(const ClassFacts& facts, std::vector<ShownClass>* shown);
    void addClass(const ClassFacts& facts, std::vector<ShownClass>* shown);
    void addAttributes();
    void addAttribute(const std::string& name);
    void addOwn(const char* name, Form form, const char* source);
    void add(ShownAttribute attribute, const AttributeFacts& facts);
    ShownClass shownClass(const ClassFacts& facts) const;

    const Schema& m_schema;
    const vorn::Properties& m_map;
    Names* const m_warnings;

    SortRules m_rules;
    Kind m_kind;
    std::vector<ClassFacts> m_facts;  // of the map's classes, in its order
    ClassFacts m_structural;
    // The map's lines: the agent's attributes by the shown one. An empty list: never shown.
    std::map<std::string, Names, vorn::StringCaseLessThan> m_sources;
    NameSet m_added;
};

ClassFacts KindMaker::factsOf(const std::string& name, const std::string& origin) const {
    auto facts = m_schema.findClass(name);
    if (!facts) throw MapException(origin + ": the schema has no object class " + name);
    return *facts;
}

Kind KindMaker::make(const std::string& category, const std::vector<MapClass>& classes) {
    m_rules = rulesOf(category);
    m_kind.sort = m_rules.sort;
    m_kind.objectClass = category;
    m_kind.condition = m_rules.condition.empty() ? "(objectClass=" + category + ")" : m_rules.condition;
    const auto isOn = [this](const char* key) {
        return vorn::equalsIgnoreCase(m_map.get(key, "false"), "true");
    };
    m_kind.showsIncomplete = m_kind.sort != Sort::Host && isOn(kShowIncomplete);
    m_kind.shadowOfAccount = m_kind.sort == Sort::Person && isOn(kShadowOfAccount);
    m_kind.incompleteWithout = m_rules.unixClasses;
    readClasses(classes);
    for (const MapClass& one : classes) readLines(one);
    chooseStructural(classes);
    addClasses();
    addAttributes();
    return std::move(m_kind);
}

void KindMaker::readClasses(const std::vector<MapClass>& classes) {
    for (const MapClass& one : classes) m_facts.push_back(factsOf(one.name, one.origin));
}

void KindMaker::readLines(const MapClass& one) {
    for (const auto& [name, source] : one.sources) {
        const std::string origin = m_map.origin(one.name + "." + name);
        if (vorn::equalsIgnoreCase(name, "dn")) continue;
        const auto facts = m_schema.findAttribute(name);
        if (!facts)
            throw MapException(std::string(origin).append(": the schema has no attribute ").append(name));
        Names& sources = m_sources[facts->name];
        // Two names of one attribute are two lines for it.
        for (const auto& [other, ignored] : one.sources) {
            if (other == name) break;
            const auto twin = m_schema.findAttribute(other);
            if (twin && twin->name == facts->name)
                throw MapException(origin + ": " + one.name + " has another line for " + facts->name);
        }
        if (!source.empty() && !vorn::stringInList(sources, source, false)) sources.push_back(source);
        if (vorn::equalsIgnoreCase(facts->name, "cn") && vorn::equalsIgnoreCase(source, kUniqueName))
            m_kind.naming = kUniqueName;
    }
}

void KindMaker::chooseStructural(const std::vector<MapClass>& classes) {
    const ClassFacts* chosen = nullptr;
    for (std::size_t i = 0; i < m_facts.size(); ++i) {
        const ClassFacts& one = m_facts[i];
        if (!one.structural) continue;
        if (chosen == nullptr || vorn::stringInList(one.superiors, chosen->name, false)) {
            chosen = &one;
        } else if (!vorn::stringInList(chosen->superiors, one.name, false)) {
            // RFC 2307's own schema makes a UNIX group structural: programs ask for both.
            if (m_kind.sort != Sort::Group)
                throw MapException(classes[i].origin + ": " + m_kind.objectClass +
                                   " has two structural classes, " + chosen->name + " and " + one.name);
            m_warnings->push_back(chosen->name + " and " + one.name +
                                  " are both structural in this schema: take rfc2307bis.schema in place of "
                                  "nis.schema, or such entries cannot be loaded elsewhere");
        }
    }
    if (chosen != nullptr) {
        m_structural = *chosen;
        return;
    }
    if (m_rules.structural.empty())
        throw MapException(classes.front().origin + ": " + m_kind.objectClass + " has no structural class");
    m_structural = factsOf(std::string(m_rules.structural), classes.front().origin);
}

ShownClass KindMaker::shownClass(const ClassFacts& facts) const {
    ShownClass shown{facts.name, {}, {}, false};
    for (const std::string& name : facts.must) {
        if (!vorn::equalsIgnoreCase(name, "objectClass")) shown.needs.push_back(name);
    }
    shown.allows = facts.must;
    shown.allows.insert(shown.allows.end(), facts.may.begin(), facts.may.end());
    return shown;
}

void KindMaker::addClass(const ClassFacts& facts, std::vector<ShownClass>* shown) {
    const bool known = std::any_of(shown->begin(), shown->end(), [&](const ShownClass& one) {
        return vorn::equalsIgnoreCase(one.name, facts.name);
    });
    if (!known) shown->push_back(shownClass(facts));
}

void KindMaker::addChain(const ClassFacts& facts, std::vector<ShownClass>* shown) {
    for (const std::string& superior : facts.superiors) addClass(*m_schema.findClass(superior), shown);
    addClass(facts, shown);
}

void KindMaker::addClasses() {
    m_kind.structural = m_structural.name;
    addChain(m_structural, &m_kind.classes);
    for (const ClassFacts& one : m_facts) addChain(one, &m_kind.classes);
    if (!m_rules.fallback.empty()) {
        if (const auto fallback = m_schema.findClass(m_rules.fallback)) addChain(*fallback, &m_kind.fallback);
    }
    if (const auto rest = m_schema.findClass(kTheRest)) {
        m_kind.classes.push_back(shownClass(*rest));
        m_kind.classes.back().holdsTheRest = true;
    }
}

void KindMaker::addAttributes() {
    addOwn("objectClass", Form::Computed, nullptr);
    for (const auto* classes : {&m_kind.classes, &m_kind.fallback}) {
        for (const ShownClass& one : *classes)
            for (const std::string& name : one.allows) addAttribute(name);
    }
    addOwn("entryUUID", Form::Uuid, "objectGUID");
    addOwn("createTimestamp", Form::Time, "whenCreated");
    addOwn("modifyTimestamp", Form::Time, "whenChanged");
    for (const char* name : {"structuralObjectClass", "entryDN", "subschemaSubentry", "hasSubordinates"})
        addOwn(name, Form::Computed, nullptr);
    // Any entry may have one (RFC 4512, 3.4): no class need allow it.
    for (const auto& [name, sources] : m_sources) {
        const auto facts = m_schema.findAttribute(name);
        if (facts && facts->operational) addAttribute(name);
    }
}

void KindMaker::addAttribute(const std::string& name) {
    static const NameSet kComputed = {"member", "memberOf", "objectClass"};
    static const NameSet kShadow = {"shadowLastChange", "shadowMax", "shadowExpire"};
    static const NameSet kNever = {"userPassword"};
    if (kNever.contains(name) || m_added.contains(name)) return;
    const auto facts = m_schema.findAttribute(name);
    if (!facts) return;
    ShownAttribute shown{facts->name, facts->match, Form::Same, {facts->name}, facts->operational};
    if (const auto lines = m_sources.find(facts->name); lines != m_sources.end())
        shown.sources = lines->second;
    if (kComputed.contains(facts->name) || (m_kind.shadowOfAccount && kShadow.contains(facts->name))) {
        shown.form = Form::Computed;
        shown.sources.clear();
    } else if (shown.sources.empty()) {
        return;
    }
    add(std::move(shown), *facts);
}

void KindMaker::addOwn(const char* name, Form form, const char* source) {
    const auto facts = m_schema.findAttribute(name);
    if (!facts) return;
    ShownAttribute shown{facts->name, Match::Other, form, {}, facts->operational};
    if (source != nullptr) shown.sources = {source};
    add(std::move(shown), *facts);
}

void KindMaker::add(ShownAttribute attribute, const AttributeFacts& facts) {
    if (!m_added.insert(attribute.name).second) return;
    for (const std::string& type : facts.types) m_kind.byType[type].push_back(m_kind.attributes.size());
    m_kind.attributes.push_back(std::move(attribute));
}

// Where the map says nothing of these, they stand for themselves: without them, nobody
// could walk the tree.
void addContainers(const std::vector<MapClass>& known, std::vector<MapClass>* classes) {
    static const std::vector<std::pair<std::string, std::string>> kContainers = {
        {"organizationalUnit", "organizationalUnit"},
        {"container", "container"},
        {"container", "builtinDomain"},
        {"container", "lostAndFound"},
        {"domain", "domainDNS"}};
    for (const auto& [name, category] : kContainers) {
        const bool given = std::any_of(known.begin(), known.end(), [&wanted = category](const MapClass& one) {
            return vorn::equalsIgnoreCase(one.category, wanted);
        });
        if (!given) classes->push_back({name, category, "built in", {}});
    }
}

}  // namespace

KindsOfMap kindsOf(const vorn::Properties& map, const Schema& schema) {
    std::vector<MapClass> classes = classesOf(map);
    addContainers(std::vector<MapClass>(classes), &classes);
    KindsOfMap made;
    while (!classes.empty()) {
        const std::string category = classes.front().category;
        const auto others = std::stable_partition(classes.begin(), classes.end(), [&](const MapClass& one) {
            return vorn::equalsIgnoreCase(one.category, category);
        });
        KindMaker maker(schema, map, &made.warnings);
        made.kinds.push_back(maker.make(category, {classes.begin(), others}));
        classes.erase(classes.begin(), others);
    }
    return made;
}

}  // namespace standard
