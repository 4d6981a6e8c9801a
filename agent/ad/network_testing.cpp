// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/network_testing.h"

#include <crypt.h>
#include <krb5.h>

#include <algorithm>

#include "agent/directory/attributes.h"
#include "agent/directory/categories.h"
#include "agent/directory/filter.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/passwords.h"
#include "vorn/dn.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// ------------------------------------------------------------------- matching

constexpr std::string_view kAllBits = "1.2.840.113556.1.4.803";
constexpr std::string_view kAnyBit = "1.2.840.113556.1.4.804";

std::int64_t number(std::string_view text) {
    return vorn::parseNumber<std::int64_t>(text).value_or(0);
}

bool isSame(std::string_view attribute, std::string_view a, std::string_view b) {
    if (isBinaryAttribute(attribute)) return a == b;
    // Categories are also called by their short names.
    if (vorn::equalsIgnoreCase(attribute, "objectCategory") && b.find('=') == std::string_view::npos)
        return vorn::startsWithIgnoreCase(a, "CN=" + categoryOfClass(b) + ",");
    return vorn::equalsIgnoreCase(a, b);
}

bool isAtLeast(std::string_view attribute, std::string_view a, std::string_view b) {
    return isIntegerAttribute(attribute) ? number(a) >= number(b) : vorn::lower(a) >= vorn::lower(b);
}

bool fits(std::string value, const struct ldb_parse_tree& tree) {
    const auto& pattern = tree.u.substring;
    value = vorn::lower(value);
    std::size_t at = 0;
    for (int i = 0; pattern.chunks[i] != nullptr; ++i) {
        const std::string chunk = vorn::lower(bytesOf(*pattern.chunks[i]));
        const bool atStart = i == 0 && pattern.start_with_wildcard == 0;
        const bool atEnd = pattern.chunks[i + 1] == nullptr && pattern.end_with_wildcard == 0;
        const std::size_t found = atEnd && !atStart ? value.rfind(chunk) : value.find(chunk, at);
        if (found == std::string::npos || found < at || (atStart && found != 0)) return false;
        at = found + chunk.size();
        if (atEnd && at != value.size()) return false;
    }
    return true;
}

bool hasBits(std::string_view value, const struct ldb_parse_tree& tree) {
    const std::string_view rule =
        tree.u.extended.rule_id == nullptr ? std::string_view() : tree.u.extended.rule_id;
    const std::int64_t wanted = number(bytesOf(tree.u.extended.value));
    if (rule == kAllBits) return (number(value) & wanted) == wanted;
    return rule == kAnyBit && (number(value) & wanted) != 0;
}

bool matchesValue(std::string_view value, const struct ldb_parse_tree& tree) {
    switch (tree.operation) {
        case LDB_OP_EQUALITY:
            return isSame(tree.u.equality.attr, value, bytesOf(tree.u.equality.value));
        case LDB_OP_GREATER:
            return isAtLeast(tree.u.comparison.attr, value, bytesOf(tree.u.comparison.value));
        case LDB_OP_LESS:
            return isAtLeast(tree.u.comparison.attr, bytesOf(tree.u.comparison.value), value);
        case LDB_OP_SUBSTRING:
            return fits(std::string(value), tree);
        case LDB_OP_PRESENT:
            return true;
        case LDB_OP_EXTENDED:
            return hasBits(value, tree);
        default:
            return false;
    }
}

bool matches(const Entry& entry, const struct ldb_parse_tree& tree) {
    const auto& list = tree.u.list;
    const auto fit = [&](const ParseTree* element) { return matches(entry, *element); };
    switch (tree.operation) {
        case LDB_OP_AND:
            return std::all_of(list.elements, list.elements + list.num_elements, fit);
        case LDB_OP_OR:
            return std::any_of(list.elements, list.elements + list.num_elements, fit);
        case LDB_OP_NOT:
            return !matches(entry, *tree.u.isnot.child);
        default:
            break;
    }
    const char* name = assertedAttribute(&tree);
    const Attribute* attribute = name == nullptr ? nullptr : entry.find(name);
    return attribute != nullptr &&
           std::any_of(attribute->values.begin(), attribute->values.end(),
                       [&](const std::string& value) { return matchesValue(value, tree); });
}

// -------------------------------------------------------------------- entries

bool isBelow(std::string_view dn, std::string_view base) {
    if (dn.size() <= base.size()) return base.empty();
    const std::size_t rest = dn.size() - base.size();
    return base.empty() || (vorn::equalsIgnoreCase(dn.substr(rest), base) && dn[rest - 1] == ',');
}

bool isInScope(const std::string& dn, const std::string& base, int scope) {
    const bool same = vorn::equalsIgnoreCase(dn, base);
    if (scope == LDAP_SCOPE_BASE) return same;
    if (scope == LDAP_SCOPE_ONELEVEL) return vorn::equalsIgnoreCase(vorn::DN::parent(dn), base);
    return same || isBelow(dn, base);
}

bool isNamed(const std::string& attribute, const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& name) { return vorn::equalsIgnoreCase(name, attribute); });
}

// With what is wanted of it.
Entry shown(const Entry& entry, const std::vector<std::string>& wanted,
            const std::vector<std::string>& without) {
    const bool all = wanted.empty() || isNamed("*", wanted);
    Entry shown{entry.dn, {}};
    for (const Attribute& attribute : entry.attributes)
        if ((all || isNamed(attribute.name, wanted)) && !isNamed(attribute.name, without))
            shown.attributes.push_back(attribute);
    return shown;
}

// The proof is made as a directory's hash makes it.
Expected<Accepted, std::string> check(const std::map<std::string, std::string>& passwords,
                                      const std::string& who, const std::string& password) {
    const auto known = passwords.find(vorn::lower(who));
    if (known == passwords.end()) return vorn::unexpected(std::string("nobody"));
    crypt_data data{};
    const char* hash = known->second != password ? nullptr : ::crypt_r(password.c_str(), "zx", &data);
    if (hash != nullptr)
        if (const auto accepted = acceptedByHash(password, {hash})) return *accepted;
    return vorn::unexpected(std::string("wrong"));
}

std::string nameOf(const Place& place) {
    return (place.kind == Place::Kind::Catalog ? "$" : "") + place.name;
}

}  // namespace

// --------------------------------------------------------------------- domain

FakeDomain::FakeDomain(std::string name, const std::string& forest) : m_name(std::move(name)) {
    info.root = vorn::DN::dnFromDomain(m_name);
    info.forest = vorn::DN::dnFromDomain(forest.empty() ? m_name : forest);
    info.netbios = vorn::upper(m_name.substr(0, m_name.find('.')));
    info.sid = sidBytes("S-1-5-21-1-2-" + std::to_string(m_name.size())).value_or("");
    add(info.root, {{"objectClass", {"top", "domain", "domainDNS"}}, {"objectSid", {info.sid}}});
}

std::string FakeDomain::guidOf(const std::string& dn) {
    return guidFromName(vorn::lower(dn));
}

void FakeDomain::add(const std::string& dn, std::vector<Attribute> attributes) {
    remove(dn);
    Entry entry{dn, std::move(attributes)};
    const auto complete = [&entry](const char* name, const std::string& value) {
        if (entry.find(name) == nullptr) entry.attributes.push_back({name, {value}});
    };
    complete("objectGUID", guidOf(dn));
    complete("distinguishedName", dn);
    complete("objectClass", "top");
    complete("objectCategory",
             categoryDn(categoryOfClass(entry.find("objectClass")->values.back()), info.forest));
    m_entries.push_back(std::move(entry));
}

void FakeDomain::remove(const std::string& dn) {
    std::erase_if(m_entries, [&](const Entry& entry) { return vorn::equalsIgnoreCase(entry.dn, dn); });
}

void FakeDomain::setPassword(const std::string& dn, const std::string& account, const std::string& password) {
    m_passwords[vorn::lower(dn)] = password;
    m_passwords[vorn::lower(account)] = password;
}

void FakeDomain::refuseBind(const std::string& dn, LdapFailure failure) {
    m_bindRefusals.insert_or_assign(vorn::lower(dn), std::move(failure));
}

void FakeDomain::refuseKdc(const std::string& account, KdcFailure failure) {
    m_kdcRefusals.insert_or_assign(vorn::lower(account), std::move(failure));
}

bool FakeDomain::holds(const std::string& dn) const {
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [&](const Entry& entry) { return vorn::equalsIgnoreCase(entry.dn, dn); });
}

// -------------------------------------------------------------------- network

FakeDomain& FakeNetwork::addDomain(const std::string& name, const std::string& forest) {
    m_domains.push_back(std::make_unique<FakeDomain>(name, forest));
    return *m_domains.back();
}

FakeDomain* FakeNetwork::find(const std::string& name) {
    for (const auto& domain : m_domains)
        if (vorn::equalsIgnoreCase(domain->name(), name)) return domain.get();
    return nullptr;
}

std::size_t FakeNetwork::count(Exchange::Kind kind) const {
    return static_cast<std::size_t>(
        std::count_if(exchanges.begin(), exchanges.end(),
                      [kind](const Exchange& exchange) { return exchange.kind == kind; }));
}

void FakeNetwork::tendNow() {
    if (m_work) m_work();
}

// The domains whose entries are seen at a place.
std::vector<FakeDomain*> FakeNetwork::reach(const Place& place) {
    std::vector<FakeDomain*> domains;
    const std::string forest = vorn::DN::dnFromDomain(place.name);
    for (const auto& domain : m_domains) {
        const bool seen = place.kind == Place::Kind::Domain
                              ? vorn::equalsIgnoreCase(domain->name(), place.name)
                              : vorn::equalsIgnoreCase(domain->info.forest, forest);
        if (seen) domains.push_back(domain.get());
    }
    return domains;
}

// Notes what is asked and lets the time pass that the answer takes. Gives the mishap that
// the exchange is to meet, if there is one; a failure where nothing is answered at all.
Expected<std::optional<Mishap>, LdapFailure> FakeNetwork::begin(Exchange exchange, const Place& place,
                                                                const Deadline& deadline) {
    exchange.place = nameOf(place);
    exchanges.push_back(exchange);
    if (meanwhile) meanwhile(Exchange(exchange));
    const std::vector<FakeDomain*> domains = reach(place);
    if (domains.empty())
        return vorn::unexpected(
            LdapFailure(LDAP_UNAVAILABLE, "no controller of " + place.name + " is known", true));
    FakeDomain& domain = *domains.front();
    std::optional<Mishap> mishap;
    if (!domain.m_mishaps.empty()) {
        mishap = std::move(domain.m_mishaps.front());
        domain.m_mishaps.pop_front();
    }
    const bool inTime = domain.answersAfter < deadline.left();
    time.advance(std::min(domain.answersAfter, deadline.left()));
    if (!inTime) return vorn::unexpected(outOfTime());
    if (!domain.answers) return vorn::unexpected(Mishap::unreachable());
    if (mishap && mishap->failure && mishap->when == Mishap::When::Before)
        return vorn::unexpected(*mishap->failure);
    return mishap;
}

// A controller knows which other directory a DN may be in, but for what lies in its own.
LdapFailure FakeNetwork::missing(const Place& place, const std::string& base) {
    for (const FakeDomain* domain : reach(place))
        if (vorn::equalsIgnoreCase(base, domain->info.root) || isBelow(base, domain->info.root))
            return {LDAP_NO_SUCH_OBJECT, "no such object"};
    return base.starts_with('<') ? LdapFailure(LDAP_NO_SUCH_OBJECT, "no such object")
                                 : LdapFailure(LDAP_REFERRAL, "ldap://" + vorn::DN::domainFromDN(base));
}

Expected<std::vector<Entry>, LdapFailure> FakeNetwork::find(const Place& place, const LdapSearch& search) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    if (!parseFilter(pool.get(), search.filter, tree).ok())
        return vorn::unexpected(LdapFailure(LDAP_FILTER_ERROR, "bad search filter"));
    const std::vector<FakeDomain*> domains = reach(place);
    std::string base = search.base;
    if (vorn::startsWithIgnoreCase(base, "<GUID=") && base.ends_with('>')) {
        const auto guid = guidBytes(std::string_view(base).substr(6, base.size() - 7));
        for (const FakeDomain* domain : domains)
            for (const Entry& entry : domain->m_entries)
                if (guid && entry.first("objectGUID") == *guid) base = entry.dn;
    }
    // The catalog has a root of its own above all its domains.
    const bool there =
        (base.empty() && place.kind == Place::Kind::Catalog) ||
        std::any_of(domains.begin(), domains.end(), [&](FakeDomain* domain) { return domain->holds(base); });
    if (!there) return vorn::unexpected(missing(place, base));
    std::vector<Entry> found;
    for (const FakeDomain* domain : domains)
        for (const Entry& entry : domain->m_entries)
            if (isInScope(entry.dn, base, search.scope) && (tree == nullptr || matches(entry, *tree)))
                found.push_back(
                    shown(entry, search.attributes,
                          place.kind == Place::Kind::Catalog ? notInCatalog : std::vector<std::string>()));
    return found;
}

Expected<SearchEnd, LdapFailure> FakeNetwork::search(const Place& place,
                                                     const std::vector<LdapSearch>& searches, EntrySink& sink,
                                                     const Deadline& deadline) {
    const auto mishap = begin({Exchange::Kind::Search, {}, searches}, place, deadline);
    if (!mishap) return vorn::unexpected(mishap.error());
    SearchEnd end;
    std::vector<Entry> all;
    for (const LdapSearch& search : searches) {
        auto found = find(place, search);
        if (found)
            std::move(found->begin(), found->end(), std::back_inserter(all));
        else if (isMissing(found.error()))
            end.missing = found.error();
        else
            return vorn::unexpected(found.error());
    }
    sink.restart();
    if (const std::optional<Mishap>& met = *mishap) {
        std::size_t part = met->when == Mishap::When::Middle ? (all.size() + 1) / 2 : all.size();
        if (met->when == Mishap::When::Before) part = 0;
        for (std::size_t i = 0; i < part; ++i) sink.take(Entry(all[i]));
        if (met->failure) return vorn::unexpected(*met->failure);
        sink.restart();
    }
    for (Entry& entry : all) sink.take(std::move(entry));
    return end;
}

// What is left of a search; it was found when the search began.
class FakeOpenSearch : public OpenSearch {
  public:
    FakeOpenSearch(FakeNetwork& network, Place place, LongSearch search, std::vector<Entry> entries)
        : m_network(network),
          m_place(std::move(place)),
          m_search(std::move(search)),
          m_left(std::move_iterator(entries.begin()), std::move_iterator(entries.end())) {
        ++m_network.m_open;
    }
    ~FakeOpenSearch() override { --m_network.m_open; }

    std::vector<Entry> take(std::size_t most) {
        std::vector<Entry> batch;
        for (std::size_t bytes = 0; !m_left.empty() && batch.size() < most && bytes < m_search.bytes;) {
            bytes += entryBytes(m_left.front());
            batch.push_back(std::move(m_left.front()));
            m_left.pop_front();
        }
        return batch;
    }

    Expected<std::vector<Entry>, LdapFailure> next(std::size_t most, const Deadline& deadline) override {
        const auto mishap = m_network.begin({Exchange::Kind::Next, {}, {m_search.search}}, m_place, deadline);
        if (!mishap || (*mishap && (*mishap)->failure)) {
            m_left.clear();
            return vorn::unexpected(mishap ? *(*mishap)->failure : mishap.error());
        }
        return take(most);
    }
    bool atEnd() const override { return m_left.empty(); }

  private:
    FakeNetwork& m_network;
    const Place m_place;
    const LongSearch m_search;
    std::deque<Entry> m_left;
};

Expected<OpenedSearch, LdapFailure> FakeNetwork::open(const Place& place, LongSearch search,
                                                      const Deadline& deadline) {
    const auto mishap = begin({Exchange::Kind::Open, {}, {search.search}}, place, deadline);
    if (!mishap) return vorn::unexpected(mishap.error());
    if (*mishap && (*mishap)->failure) return vorn::unexpected(*(*mishap)->failure);
    auto found = find(place, search.search);
    if (!found) return vorn::unexpected(found.error());
    std::erase_if(*found, [&](const Entry& entry) { return search.wanted && !search.wanted(entry); });
    const std::size_t first = search.first;
    auto rest = std::make_unique<FakeOpenSearch>(*this, place, std::move(search), std::move(*found));
    OpenedSearch opened{rest->take(first), nullptr};
    if (rest->atEnd()) return opened;
    if (m_open > mostOpen) {
        const std::string text = "too many searches are open";
        return vorn::unexpected(LdapFailure(LDAP_BUSY, text, false, text));
    }
    opened.rest = std::move(rest);
    return opened;
}

Expected<std::shared_ptr<const DomainInfo>, LdapFailure> FakeNetwork::describe(const Place& place,
                                                                               const Deadline& deadline) {
    std::shared_ptr<const DomainInfo>& described = m_described[vorn::lower(nameOf(place))];
    if (described) return described;
    const auto mishap = begin({Exchange::Kind::Describe}, place, deadline);
    if (!mishap) return vorn::unexpected(mishap.error());
    if (*mishap && (*mishap)->failure) return vorn::unexpected(*(*mishap)->failure);
    described = std::make_shared<DomainInfo>(reach(place).front()->info);
    return described;
}

Expected<Accepted, LdapFailure> FakeNetwork::bind(const Place& place, const std::string& dn,
                                                  const std::string& password, const Deadline& deadline) {
    const auto mishap = begin({Exchange::Kind::Bind, {}, {}, dn}, place, deadline);
    if (!mishap) return vorn::unexpected(mishap.error());
    if (*mishap && (*mishap)->failure) return vorn::unexpected(*(*mishap)->failure);
    const FakeDomain& domain = *reach(place).front();
    if (const auto refusal = domain.m_bindRefusals.find(vorn::lower(dn));
        refusal != domain.m_bindRefusals.end())
        return vorn::unexpected(refusal->second);
    const auto accepted = check(domain.m_passwords, dn, password);
    if (accepted) return *accepted;
    const char* reason = accepted.error() == "nobody" ? "525" : "52e";
    return vorn::unexpected(
        LdapFailure(LDAP_INVALID_CREDENTIALS, "Invalid credentials: data " + std::string(reason)));
}

Expected<Accepted, KdcFailure> FakeNetwork::askKdc(const Place& place, const std::string& account,
                                                   const std::string& password, const Deadline& deadline) {
    const auto unreachable = [](const LdapFailure& failure) {
        return vorn::unexpected(KdcFailure{KRB5_KDC_UNREACH, failure.text});
    };
    const auto mishap = begin({Exchange::Kind::Kdc, {}, {}, account}, place, deadline);
    if (!mishap) return unreachable(mishap.error());
    if (*mishap && (*mishap)->failure) return unreachable(*(*mishap)->failure);
    const FakeDomain& domain = *reach(place).front();
    if (const auto refusal = domain.m_kdcRefusals.find(vorn::lower(account));
        refusal != domain.m_kdcRefusals.end())
        return vorn::unexpected(refusal->second);
    const auto accepted = check(domain.m_passwords, account, password);
    if (accepted) return *accepted;
    return vorn::unexpected(accepted.error() == "nobody"
                                ? KdcFailure{KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, "Client not found in database"}
                                : KdcFailure{KRB5KDC_ERR_PREAUTH_FAILED, "Preauthentication failed"});
}

Expected<Done, LdapFailure> FakeNetwork::probe(const Place& place, Look look, const Deadline& deadline) {
    if (look == Look::AtWhatIsKnown) {
        for (const FakeDomain* domain : reach(place))
            if (!domain->countsAsDown) return Done();
        return vorn::unexpected(Mishap::unreachable());
    }
    const auto mishap = begin({Exchange::Kind::Probe}, place, deadline);
    if (!mishap) return vorn::unexpected(mishap.error());
    if (*mishap && (*mishap)->failure) return vorn::unexpected(*(*mishap)->failure);
    return Done();
}

}  // namespace vexagent
