#include "agent/ad/ad.h"

#include <algorithm>
#include <random>

#include "agent/ad/filters.h"
#include "agent/ad/login.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/log.h"
#include "agent/directory/member_groups.h"
#include "vorn/dn.h"
#include "vorn/own_file.h"
#include "vorn/secret.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr int kSubordinate = 3;  // RFC 4511 does not know it, and neither do controllers
constexpr milliseconds kHealthTime{3000};
constexpr std::size_t kMostNames = 64;  // whose groups one filter asks for
constexpr char kCatalog[] = "$";

Result unavailable(const std::string& text) {
    return Result::ldap(VEX_UNAVAILABLE, LDAP_UNAVAILABLE, text);
}

// A context that knows DNs and nothing else.
ldb_context* dnContext() {
    thread_local const Talloc<ldb_context> context = newLdb();
    return context.get();
}

// Whether an index leads to the few objects that a filter finds.
bool leadsToFew(const std::string& filter) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    return !parseFilter(pool.get(), filter, tree).ok() || isQuickAdFilter(tree);
}

// What is inside "<GUID=...>"; nothing for another base.
std::optional<std::string> guidBase(const std::string& base) {
    if (!vorn::startsWithIgnoreCase(base, "<GUID=") || base.back() != '>') return std::nullopt;
    return guidText(guidBytes(std::string_view(base).substr(6, base.size() - 7)).value_or(""));
}

// A password that others may read is refused at once, not at the first request.
const AdOptions& checked(const AdOptions& options) {
    std::string password;
    if (options.transport != Transport::Gssapi) vorn::readSecretLine(options.bindPasswordFile, password);
    vorn::wipe(password);
    return options;
}

bool isRefusal(vexCode code) {
    return code == VEX_NO_SUCH_USER || code == VEX_WRONG_PASSWORD || code == VEX_ACCOUNT_REFUSED;
}

// Nobody's password was looked at.
Result ambiguous(const NamedEntries& found) {
    std::string dns;
    for (const std::vector<Entry>* entries : {&found.real, &found.rewritten})
        for (const Entry& entry : *entries) dns.append(dns.empty() ? "" : "; ").append(entry.dn);
    return refusedUnseen("the name means more than one object: " + dns);
}

Verdict verdictOf(const Expected<Accepted, LdapFailure>& accepted) {
    return accepted ? Verdict(*accepted) : loginFailure(accepted.error());
}

// Somebody whom no directory holds.
Entry nobody(const Domain& domain) {
    std::random_device random;
    std::string name = "nobody";
    for (int i = 0; i < 4; ++i) name += "-" + std::to_string(random());
    return {"CN=" + name + "," + vorn::DN::dnFromDomain(domain.name()), {{"sAMAccountName", {name}}}};
}

}  // namespace

// -------------------------------------------------------------------- domains

AdDirectory::AdDirectory(const AdOptions& options)
    : m_options(checked(options)),
      m_tickets(
          options.transport != Transport::Gssapi
              ? nullptr
              : std::make_unique<Tickets>(
                    m_options, [this](const std::string& realm) { return m_forest.controllersOf(realm); })),
      m_context{m_options, m_watchdog, m_tickets.get()},
      m_memory(options.authCache.enabled ? std::make_unique<AuthCache>(options.authCache, options.clock)
                                         : nullptr),
      m_memberships(options.mostGroups),
      m_forest(m_context),
      m_joined(m_forest.joined()),
      m_schema(m_joined) {}

Result AdDirectory::catalog(const Deadline& deadline, Domain*& domain) {
    return resultOf(m_forest.catalog(deadline, domain));
}

// The domain of that name; null when the joined domain names none of that name. For ""
// and "$" it is the one that a DN lies in, where that is another than the joined one.
Result AdDirectory::domainOf(const std::string& name, const std::string& dn, const Deadline& deadline,
                             Domain*& domain) {
    domain = &m_joined;
    const std::string wanted = name == kCatalog ? vorn::DN::domainFromDN(dn) : name;
    if (wanted.empty()) return {};
    const LdapStatus status = m_forest.find(wanted, deadline, domain);
    if (status.ok()) return {};
    AGENT_LOG(vorn::Logger::kWarning, "%s cannot be asked whether there is a domain \"%s\": %s",
              m_options.domain.c_str(), vorn::printable(wanted).c_str(), status.text.c_str());
    return unavailable("the joined domain cannot be asked which domains there are");
}

// The same for what is to be found there.
Result AdDirectory::placeOf(const std::string& name, const std::string& dn, const Deadline& deadline,
                            Domain*& domain) {
    Result result = domainOf(name, dn, deadline, domain);
    return !result.ok() || domain != nullptr ? result : unavailable("there is no such domain");
}

Result AdDirectory::idsOf(Domain& domain, const Deadline& deadline, std::shared_ptr<const Ids>& ids) {
    std::shared_ptr<const DomainInfo> info;
    if (m_options.ids.fromSid)
        if (const LdapStatus status = domain.info(deadline, info); !status.ok()) return resultOf(status);
    ids = std::make_shared<const Ids>(m_options.ids, info ? info->sid : std::string());
    return {};
}

AdSource AdDirectory::source(Domain& domain) {
    return {domain, domain.kind() == Domain::Kind::Catalog ? m_joined : domain, m_memberships, m_options};
}

// ------------------------------------------------------------------- searches

bool AdDirectory::isQuick(int scope, const std::string& filter) const {
    return shapeOf(filter).size <= kMostForQuick && (scope == LDAP_SCOPE_BASE || leadsToFew(filter));
}

Result AdDirectory::findBase(const Query& query, Domain& domain, const Deadline& deadline, AdPlan& plan) {
    Result missing = resultOf({LDAP_NO_SUCH_OBJECT});
    plan.search.base = query.base;
    plan.search.scope = query.scope == kSubordinate ? LDAP_SCOPE_SUBTREE : query.scope;
    if (query.base.empty()) {
        // The catalog has no root of its own: nothing above all its domains.
        if (domain.kind() == Domain::Kind::Domain) plan.search.base = vorn::DN::dnFromDomain(domain.name());
    } else if (const auto guid = guidBase(query.base)) {
        if (guid->empty()) return missing;
        plan.search.base = "<GUID=" + *guid + ">";
    } else if (query.base.find('\0') != std::string::npos || !vorn::DN::isDN(query.base)) {
        return missing;
    }
    if (query.scope != kSubordinate) return {};
    return readBase(domain, deadline, plan);
}

// Sees whether the base is there, and sets it to the DN that the controller gives it.
Result AdDirectory::readBase(Domain& domain, const Deadline& deadline, AdPlan& plan) {
    std::vector<Entry> base;
    const LdapStatus status =
        domain.search({plan.search.base, LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}}, deadline, base);
    if (!status.ok()) return resultOf(status);
    if (base.empty()) return resultOf({LDAP_NO_SUCH_OBJECT});
    plan.without = base[0].dn;
    return {};
}

Result AdDirectory::prepare(const Query& query, Domain& domain, Domain& members, const Deadline& deadline,
                            AdPlan& plan, bool& nothing) {
    std::shared_ptr<const Ids> ids;
    if (Result result = idsOf(members, deadline, ids); !result.ok()) return result;
    if (const LdapStatus status = m_schema.get(deadline, plan.schema); !status.ok()) return resultOf(status);
    FilterContext context;
    context.ldb = dnContext();
    context.schema = plan.schema.get();
    std::shared_ptr<const DomainInfo> info;
    if (const LdapStatus status = members.info(deadline, info); !status.ok()) return resultOf(status);
    context.rootDn = info->forest;
    MemberGroups groups(
        [&](const std::string& name, std::vector<std::string>& guids) {
            return resultOf(m_memberships.groupsOf(members, *ids, name, deadline, guids));
        },
        kMostNames);
    context.first = [&](void* pool, ParseTree*& tree) {
        std::optional<Selection> decided;
        if (query.view.zone)
            decided =
                rewriteMemberAssertion(pool, tree, [&](std::string_view name) { return groups.of(name); });
        if (!decided && ids->enabled()) decided = rewriteIdAssertion(pool, tree, *ids);
        return decided;
    };
    Selection selection = Selection::Some;
    if (Result made = makeAdFilter(query, context, plan.search.filter, selection); !made.ok()) return made;
    if (!groups.result().ok()) return groups.result();
    nothing = selection == Selection::Nothing;
    plan.ids = ids;
    plan.view = plan.schema->resolve(query.view);
    plan.typed = query.typed;
    plan.firstBatch = query.firstBatch;
    plan.search.attributes = attributesFor(plan.view, *ids);
    plan.search.extent = leadsToFew(plan.search.filter) ? Extent::Any : Extent::Many;
    return findBase(query, domain, deadline, plan);
}

Result AdDirectory::search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) {
    rest.reset();
    const Deadline end = deadline();
    Domain* domain = nullptr;
    Result found = query.domain == kCatalog ? catalog(end, domain) : placeOf(query.domain, "", end, domain);
    if (!found.ok()) return found;
    const AdSource from = source(*domain);
    AdPlan plan;
    bool nothing = false;
    if (Result result = prepare(query, *domain, from.members, end, plan, nothing); !result.ok())
        return result;
    if (nothing) return plan.search.base.empty() ? Result() : readBase(*domain, end, plan);
    Result result = runAdSearch(from, plan, end, first, rest);
    const bool mayBeRewritten = query.scope == LDAP_SCOPE_BASE && domain->kind() == Domain::Kind::Domain;
    if (result.code != VEX_NO_SUCH_OBJECT || !mayBeRewritten) return result;
    NamedEntries named;
    NameFinder finder(*domain, m_options, {"1.1"}, end);
    if (const LdapStatus status = finder.byDn(query.base, NameFinder::Rewritten::IfNotReal, named);
        !status.ok())
        return resultOf(status);
    if (named.only() == nullptr) return result;
    plan.search.base = named.only()->dn;
    return runAdSearch(from, std::move(plan), end, first, rest);
}

// What one object is asked for and made with.
Result AdDirectory::prepareOne(Domain& domain, const View& view, const Deadline& deadline, AdPlan& plan) {
    if (Result result = idsOf(domain, deadline, plan.ids); !result.ok()) return result;
    if (const LdapStatus status = m_schema.get(deadline, plan.schema); !status.ok()) return resultOf(status);
    plan.view = plan.schema->resolve(view);
    plan.search.attributes = attributesFor(plan.view, *plan.ids);
    return {};
}

Result AdDirectory::showOne(Domain& domain, std::vector<Entry> entries, const AdPlan& plan,
                            const Deadline& deadline, Object& object) {
    std::vector<Object> objects;
    Result result = makeObjects(source(domain), plan, entries, deadline, objects);
    if (result.ok()) object = std::move(objects.front());
    return result;
}

Result AdDirectory::fetch(const std::string& domainName, const std::string& dn, const View& view,
                          Object& object) {
    Result missing = Result::ldap(VEX_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT, "no object has this DN");
    const Deadline end = deadline();
    Domain* domain = nullptr;
    if (Result result = placeOf(domainName, dn, end, domain); !result.ok()) return result;
    AdPlan plan;
    if (Result result = prepareOne(*domain, view, end, plan); !result.ok()) return result;
    NamedEntries found;
    NameFinder finder(*domain, m_options, plan.search.attributes, end);
    const LdapStatus status = finder.byDn(dn, NameFinder::Rewritten::IfNotReal, found);
    if (!status.ok()) return resultOf(status);
    if (found.only() == nullptr) return missing;
    return showOne(*domain, {std::move(*found.only())}, plan, end, object);
}

Result AdDirectory::lookup(const std::string& guid, const View& view, Object& object) {
    Result missing = Result::ldap(VEX_OBJECT_GONE, LDAP_NO_SUCH_OBJECT, "no object has this GUID");
    const auto bytes = guidBytes(guid);
    if (!bytes) return missing;
    const Deadline end = deadline();
    AdPlan plan;
    if (Result result = prepareOne(m_joined, view, end, plan); !result.ok()) return result;
    const LdapSearch wanted = {"<GUID=" + guidText(*bytes) + ">", LDAP_SCOPE_BASE, "(objectClass=*)",
                               plan.search.attributes};
    std::vector<Entry> entries;
    LdapStatus status = m_joined.search(wanted, end, entries);
    if (status.code == LDAP_NO_SUCH_OBJECT || (status.ok() && entries.empty())) {
        // It may be one of another domain that a search of the forest has shown.
        std::shared_ptr<const DomainInfo> info;
        status = m_joined.info(end, info);
        if (status.ok() && info->domains < 2) return missing;
        Domain* forest = nullptr;
        if (Result result = catalog(end, forest); !result.ok()) return result;
        status = forest->search(wanted, end, entries);
        if (status.code == LDAP_NO_SUCH_OBJECT || (status.ok() && entries.empty())) return missing;
        if (!status.ok()) return resultOf(status);
        return fetch(kCatalog, entries[0].dn, view, object);
    }
    if (!status.ok()) return resultOf(status);
    return showOne(m_joined, std::move(entries), plan, end, object);
}

// -------------------------------------------------------------- authentication

Verdict AdDirectory::checkAccount(const Login& login, const Entry& account, const Deadline& deadline) {
    if (m_options.transport != Transport::Gssapi)
        return verdictOf(login.domain->tryPassword(account.dn, login.password, deadline));
    KdcConversation kdc([this](const std::string& realm) { return m_forest.controllersOf(realm); }, deadline);
    const PasswordCheck check = checkPassword(m_options, kdc, std::string(account.first("sAMAccountName")),
                                              login.domain->name(), login.password);
    return loginResult(check, account, m_options.clock());
}

// Asks what a wrong password would be asked: neither the time that it takes nor what
// fails on the way tells a client whom the domain knows.
Result AdDirectory::askInVain(const Login& login, const Deadline& deadline, const Result& refusal) {
    const std::string password(login.password.size(), 'x');
    const Verdict verdict =
        checkAccount({login.user, password, login.domain}, nobody(*login.domain), deadline);
    const bool told = verdict.accepted() || isRefusal(verdict.code());
    return told ? refusal : verdict.result();
}

Verdict AdDirectory::askDomain(Login& login) {
    const Deadline end = deadline();
    const std::string dn = vorn::DN::isDN(login.user) ? login.user : "";
    if (Result result = domainOf(kCatalog, dn, end, login.domain); !result.ok()) return result;
    if (login.domain == nullptr) return noSuchUser();
    NamedEntries found;
    NameFinder finder(*login.domain, m_options, kLoginAttributes, end);
    const LdapStatus status = finder.byLoginName(login.user, found);
    if (!status.ok()) return resultOf(status);
    if (found.count() > 1) return askInVain(login, end, ambiguous(found));
    const Entry* account = found.only();
    if (account == nullptr || account->first("sAMAccountName").empty())
        return askInVain(login, end, noSuchUser());
    login.account = guidText(account->first("objectGUID"));
    const Verdict verdict = checkAccount(login, *account, end);
    if (!verdict.accepted()) return verdict;
    if (const std::optional<Result> refusal = unreadableState(*account)) return *refusal;
    return verdict;
}

// What the domain says itself is not asked of the memory, however late it says it.
std::optional<Verdict> AdDirectory::askMemory(const Login& login) {
    if (login.domain->answersNow()) return std::nullopt;
    std::optional<Verdict> verdict = m_memory->check(login.user, login.password);
    if (verdict && verdict->accepted())
        AGENT_LOG(vorn::Logger::kInfo, "password of \"%s\" checked against an earlier check",
                  vorn::printable(login.user).c_str());
    return verdict;
}

void AdDirectory::learn(const Login& login, const Verdict& verdict) {
    if (verdict.accepted()) m_memory->remember(login.user, login.account, login.password);
    if (isRefusal(verdict.code())) m_memory->forget(login.user, login.account);
}

bool AdDirectory::isJoined(const std::string& user) const {
    return !vorn::DN::isDN(user) || vorn::equalsIgnoreCase(vorn::DN::domainFromDN(user), m_options.domain);
}

Verdict AdDirectory::authenticate(const std::string& user, const std::string& password,
                                  LoginOptions options) {
    if (user.empty()) return noSuchUser();
    if (password.empty() || password.find('\0') != std::string::npos) return wrongPassword();
    const bool mayRemember = m_memory && (options.preferCached || options.allowCached);
    Login login{user, password, &m_joined};
    // Nobody waits for a domain that was out of reach a moment ago, and is still.
    if (mayRemember && options.preferCached && isJoined(user) && m_joined.controllers().allDown(now()))
        if (const auto remembered = askMemory(login)) return *remembered;
    const Verdict verdict = askDomain(login);
    if (verdict.code() == VEX_UNAVAILABLE && mayRemember && login.domain != nullptr)
        if (const auto remembered = askMemory(login)) return *remembered;
    if (m_memory) learn(login, verdict);
    return verdict;
}

// ------------------------------------------------------------------ diagnosis

Result AdDirectory::supportedAttributes(std::vector<std::string>& names) {
    std::shared_ptr<const Schema> schema;
    if (const LdapStatus status = m_schema.get(deadline(), schema); !status.ok()) return resultOf(status);
    names = schema->names();
    if (!names.empty()) return {};
    return Result::ldap(VEX_DIRECTORY_ERROR, LDAP_OTHER, "the controller does not tell its schema");
}

Result AdDirectory::health() {
    const LdapStatus status = m_joined.health(within(std::min(kHealthTime, m_options.timeout)));
    if (status.ok() || (m_memory && m_memory->hasAnswers())) return {};
    Result result = resultOf(status);
    if (result.code != VEX_UNAVAILABLE) result.code = VEX_UNAVAILABLE;
    return result;
}

}  // namespace vexagent
