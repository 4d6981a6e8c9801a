// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/embedded.h"

#include <ldap.h>

#include <set>

#include "agent/directory/account_state.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/member_groups.h"
#include "agent/directory/passwords.h"
#include "agent/embedded/filter.h"
#include "agent/embedded/folding.h"
#include "agent/embedded/kinds.h"
#include "agent/embedded/objects.h"
#include "agent/embedded/password_store.h"
#include "agent/embedded/search.h"
#include "agent/embedded/zone.h"
#include "vorn/dn.h"
#include "vorn/secret_names.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// What objects can carry even when none in the database does.
constexpr const char* kAlwaysSupported[] = {"cn",
                                            "name",
                                            "displayName",
                                            "description",
                                            "mail",
                                            "givenName",
                                            "sn",
                                            "telephoneNumber",
                                            "objectClass",
                                            "objectCategory",
                                            "objectGUID",
                                            "objectSid",
                                            "distinguishedName",
                                            "sAMAccountName",
                                            "userPrincipalName",
                                            "primaryGroupID",
                                            "userAccountControl",
                                            "member",
                                            "memberOf",
                                            "uid",
                                            "uidNumber",
                                            "gidNumber",
                                            "gecos",
                                            "unixHomeDirectory",
                                            "loginShell",
                                            "memberUid",
                                            "shadowLastChange",
                                            "shadowMin",
                                            "shadowMax",
                                            "shadowWarning",
                                            "shadowInactive",
                                            "shadowExpire",
                                            "shadowFlag",
                                            "nisNetgroupTriple",
                                            "memberNisNetgroup",
                                            "nisMapName",
                                            "nisMapEntry",
                                            "ipServicePort",
                                            "ipServiceProtocol",
                                            "ipProtocolNumber",
                                            "oncRpcNumber",
                                            "ipHostNumber",
                                            "ipNetworkNumber",
                                            "ipNetmaskNumber",
                                            "macAddress",
                                            "bootFile",
                                            "bootParameter",
                                            "msSFU30Name",
                                            "msSFU30NisDomain"};

// What the user's record holds of an attribute, for as long as it is there; nothing for nobody.
std::vector<std::string_view> valuesOf(const ldb_message* user, const char* name) {
    std::vector<std::string_view> values;
    const ldb_message_element* element = user == nullptr ? nullptr : ldb_msg_find_element(user, name);
    for (unsigned i = 0; element != nullptr && i < element->num_values; ++i)
        values.push_back(bytesOf(element->values[i]));
    return values;
}

// The number that an account's attribute gives; nothing when it cannot be read.
std::optional<std::int64_t> numberOf(const ldb_message* user, const char* name) {
    return stateNumber(valuesOf(user, name));
}

Result noSuchUser() {
    return Result::ldap(VEX_NO_SUCH_USER, LDAP_INVALID_CREDENTIALS, "no such user");
}
Result wrongPassword() {
    return Result::ldap(VEX_WRONG_PASSWORD, LDAP_INVALID_CREDENTIALS, "wrong password");
}
Result accountRefused(const char* why) {
    return Result::ldap(VEX_ACCOUNT_REFUSED, LDAP_INVALID_CREDENTIALS, why);
}

std::string dnText(const ldb_message* message) {
    return ldb_dn_get_linearized(message->dn);
}

Result unavailable(const std::string& text) {
    return Result::ldap(VEX_UNAVAILABLE, LDAP_UNAVAILABLE, text);
}

// Nobody's password was looked at.
Result ambiguous(const Named& named) {
    std::string dns = named.real != nullptr ? dnText(named.real) : "";
    for (const ldb_message* message : named.rewritten)
        dns.append(dns.empty() ? "" : "; ").append(dnText(message));
    return wrongPassword().because("the name means more than one object: " + dns);
}

// Has LDB asked for more where it would not fold the filter's letters itself.
Selection loosen(void* pool, Plan& plan) {
    ParseTree* const wanted = plan.tree;
    const Selection selection = loosenFilter(pool, plan.tree);
    if (plan.tree != wanted) plan.match = wanted;
    return selection;
}

}  // namespace

EmbeddedDirectory::EmbeddedDirectory(const EmbeddedOptions& options)
    : m_rules{options.domain, options.loginAttributes},
      m_domainDn(vorn::DN::dnFromDomain(options.domain)),
      m_clock(options.clock),
      m_ids(options.leastId),
      m_changesPasswords(options.changesPasswords),
      m_database(options.database) {}

Result EmbeddedDirectory::checkDomain(const std::string& domain) const {
    if (domain.empty() || domain == "$" || vorn::equalsIgnoreCase(domain, m_rules.domain)) return {};
    return unavailable("there is no such domain")
        .because("no directory of the domain \"" + vorn::printable(domain) +
                 "\": the embedded directory holds \"" + m_rules.domain + "\" only");
}

bool EmbeddedDirectory::isQuick(int scope, const std::string& filter) const {
    if (shapeOf(filter).size > kMostForQuick) return false;
    if (scope == 0) return true;
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    return !parseFilter(pool.get(), filter, tree).ok() || isQuickFilter(tree);
}

Result EmbeddedDirectory::findBase(Handle& handle, void* pool, const Query& query, ldb_dn*& base) {
    Result missing = Result::ldap(VEX_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT, "the search base does not exist");
    const bool atRoot = query.base.empty() || vorn::equalsIgnoreCase(query.base, m_domainDn);
    if (atRoot) {
        // The root is there to be searched even when it has no entry.
        base = ldb_dn_new(pool, handle.ldb(), m_domainDn.c_str());
        return base != nullptr ? Result() : missing;
    }
    const ldb_message* object = nullptr;
    if (vorn::startsWithIgnoreCase(query.base, "<GUID=") && query.base.back() == '>') {
        const auto guid = guidBytes(std::string_view(query.base).substr(6, query.base.size() - 7));
        if (guid) object = handle.readByGuid(pool, *guid);
    } else {
        const Named named = findByDn(handle, pool, query.base, m_rules);
        object = named.real != nullptr || query.scope != 0 ? named.real : named.only();
    }
    if (object == nullptr) return missing;
    base = object->dn;
    return {};
}

Result EmbeddedDirectory::search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) try {
    rest.reset();
    if (Result domain = checkDomain(query.domain); !domain.ok()) return domain;
    const Pool pool = newPool();
    Plan plan;
    if (Result parsed = parseFilter(pool.get(), query.filter, plan.tree); !parsed.ok()) return parsed;
    Database::Lease handle = m_database.lease();
    if (Result found = findBase(*handle, pool.get(), query, plan.base); !found.ok()) return found;

    FilterContext context;
    context.ldb = handle->ldb();
    context.rootDn = m_domainDn;
    MemberGroups groups(
        [&](const std::string& uid, std::vector<std::string>& guids) {
            guids = groupsOf(*handle, uid, query.view.naming);
            return Result();
        },
        kMostAssertions);
    if (query.view.zone) context.groupsOf = [&](std::string_view uid) { return groups.of(uid); };
    Selection selection = rewriteFilter(pool.get(), plan.tree, context);
    if (!groups.result().ok()) return groups.result();
    if (selection == Selection::Some) selection = loosen(pool.get(), plan);
    if (selection == Selection::Nothing) return {};
    if (selection == Selection::All) plan.tree = matchAll(pool.get());
    return runSearch(source(), handle, plan, query, {first, rest});
} catch (const ReadError& error) {
    return readFailure(error);
}

Result EmbeddedDirectory::fetch(const std::string& domain, const std::string& dn, const View& view,
                                Object& object) try {
    if (Result checked = checkDomain(domain); !checked.ok()) return checked;
    const Pool pool = newPool();
    Database::Lease handle = m_database.lease();
    const Named named = findByDn(*handle, pool.get(), dn, m_rules);
    const ldb_message* message = named.real != nullptr ? named.real : named.only();
    if (message == nullptr)
        return Result::ldap(VEX_NO_SUCH_OBJECT, LDAP_NO_SUCH_OBJECT, "no object has this DN");
    object = makeObject(*handle, source(), message, view);
    return {};
} catch (const ReadError& error) {
    return readFailure(error);
}

Result EmbeddedDirectory::lookup(const std::string& guid, const View& view, Object& object) try {
    const Pool pool = newPool();
    const auto bytes = guidBytes(guid);
    Database::Lease handle = m_database.lease();
    const ldb_message* message = bytes ? handle->readByGuid(pool.get(), *bytes) : nullptr;
    if (message == nullptr)
        return Result::ldap(VEX_OBJECT_GONE, LDAP_NO_SUCH_OBJECT, "no object has this GUID");
    object = makeObject(*handle, source(), message, view);
    return {};
} catch (const ReadError& error) {
    return readFailure(error);
}

// Each takes microseconds.
void EmbeddedDirectory::lookupAhead(const std::vector<std::string>& guids, const View& view,
                                    const Take& take) {
    for (const std::string& guid : guids) {
        Object object;
        if (lookup(guid, view, object).ok() && !take(std::move(object))) return;
    }
}

// Why an account may not log in whatever its password.
std::optional<Result> EmbeddedDirectory::refusalOf(const ldb_message* user) const {
    const std::optional<std::int64_t> control = numberOf(user, "userAccountControl");
    const std::optional<std::int64_t> expires = numberOf(user, "accountExpires");
    if (!control || !expires) return accountRefused("the account's state cannot be read");
    if (isDisabled(*control)) return accountRefused("the account is disabled");
    if (hasExpired(*expires, m_clock())) return accountRefused("the account has expired");
    return std::nullopt;
}

// How the first password that the database holds was hashed, so that a user whom
// nobody knows takes the time of one who is there. Asked for at every log-in, of
// known users too, for the same reason; looked up once after a change.
std::string EmbeddedDirectory::idleSetting(Handle& handle) {
    const std::optional<std::uint64_t> sequence = handle.sequence();
    const auto known = m_idleSetting.lock();
    if (known->isOf(sequence)) return known->value;
    std::string setting;
    const Pool pool = newPool();
    ldb_dn* root = ldb_dn_new(pool.get(), handle.ldb(), nullptr);
    const char* const attributes[] = {kPasswordAttribute, nullptr};
    handle.search(root, LDB_SCOPE_SUBTREE, matchAll(pool.get()), attributes, [&](ldb_message* message) {
        setting = settingOf(firstValue(message, kPasswordAttribute));
        return setting.empty();
    });
    *known = {sequence, setting};
    return setting;
}

// Whether it is the password of the account, which is found in the pool.
Verdict EmbeddedDirectory::check(const std::string& user, const std::string& password, void* pool,
                                 const ldb_message*& account) {
    if (user.empty()) return noSuchUser();
    if (password.empty()) return wrongPassword();
    Named named;
    std::string idle;
    {
        // The handle is not held while the hash is computed.
        Database::Lease handle = m_database.lease();
        named = findByLoginName(*handle, pool, user, m_rules);
        idle = idleSetting(*handle);
    }
    account = named.only();
    const std::optional<Accepted> accepted =
        acceptedByHash(password, valuesOf(account, kPasswordAttribute), idle);
    if (named.count() > 1) return ambiguous(named);
    if (account == nullptr) return noSuchUser();
    if (!accepted) return wrongPassword();
    if (std::optional<Result> refusal = refusalOf(account)) return *refusal;
    return *accepted;
}

Verdict EmbeddedDirectory::authenticate(const std::string& user, const std::string& password,
                                        LoginOptions) try {
    const Pool pool = newPool();
    const ldb_message* account = nullptr;
    return check(user, password, pool.get(), account);
} catch (const ReadError& error) {
    return readFailure(error);
}

Result EmbeddedDirectory::changePassword(const std::string& user, const std::string& oldPassword,
                                         const std::string& newPassword) try {
    if (!m_changesPasswords) return noPasswordChange("this directory changes no passwords");
    const Pool pool = newPool();
    const ldb_message* account = nullptr;
    if (const Verdict verdict = check(user, oldPassword, pool.get(), account); !verdict.accepted())
        return verdict.result();
    if (newPassword.empty()) return badNewPassword("the new password is empty");
    if (newPassword == oldPassword) return badNewPassword("the new password is the old one");
    const std::string hash = newHash(newPassword);
    if (hash.empty()) return badNewPassword("the new password cannot be stored");
    return storePassword(m_database.path(), account, hash, m_clock());
} catch (const ReadError& error) {
    return readFailure(error);
}

Result EmbeddedDirectory::supportedAttributes(std::vector<std::string>& names) try {
    Database::Lease handle = m_database.lease();
    const std::optional<std::uint64_t> sequence = handle->sequence();
    if (const auto known = m_names.lock(); known->isOf(sequence)) {
        names = known->value;
        return {};
    }
    std::set<std::string, vorn::StringCaseLessThan> found(std::begin(kAlwaysSupported),
                                                          std::end(kAlwaysSupported));
    const Pool pool = newPool();
    ldb_dn* root = ldb_dn_new(pool.get(), handle->ldb(), nullptr);
    handle->search(root, LDB_SCOPE_SUBTREE, matchAll(pool.get()), nullptr, [&](ldb_message* message) {
        for (unsigned i = 0; i < message->num_elements; ++i) {
            const std::string_view name = message->elements[i].name;
            if (!vorn::isSecretName(name) && !found.contains(name)) found.emplace(name);
        }
        return true;
    });
    names.assign(found.begin(), found.end());
    *m_names.lock() = {sequence, names};
    return {};
} catch (const ReadError& error) {
    return readFailure(error);
}

Result EmbeddedDirectory::health() {
    try {
        Database::Lease handle = m_database.lease();
        if (handle->sequence()) return {};
        return unavailable("the directory cannot be read")
            .because(m_database.path() +
                     ": cannot be read: " + errorText(handle->ldb(), LDB_ERR_OPERATIONS_ERROR));
    } catch (const DatabaseError& error) {
        return unavailable("the directory cannot be read").because(error.what());
    }
}

}  // namespace vexagent
