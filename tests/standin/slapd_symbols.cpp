// SPDX-License-Identifier: Apache-2.0
// The symbols that slapd exports to the module, done with tables.
#include <strings.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <sstream>

#include "tests/standin/inside.h"

#include "tests/standin/slapd_standin.h"

extern "C" {
int slap_debug = 0;
int connection_pool_max = 16;
struct slap_control_ids slap_cids;
char* slap_known_controls[SLAP_MAX_CIDS + 1];
struct slap_internal_schema slap_schema;
BackendDB* frontendDB;
const berval slap_EXOP_MODIFY_PASSWD = BER_BVC(LDAP_EXOP_MODIFY_PASSWD);
}

namespace {

// A known attribute, with the records of slapd that describe it.
struct Known {
    std::string name;
    AttributeDescription description{};
    AttributeType type{};
    Syntax syntax{};
};

struct IgnoringCase {
    bool operator()(const std::string& a, const std::string& b) const {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};

struct Slapd {
    std::mutex mutex;  // guards everything below
    std::map<std::string, std::unique_ptr<Known>, IgnoringCase> known;
    std::map<std::string, std::unique_ptr<Known>, IgnoringCase> undefined;
    std::string rejected;
    int filterCode = LDAP_COMPARE_TRUE;
    std::function<int(Entry*, const Filter*)> filterTest;
    int parsedTexts = 0;
    int liveEntries = 0;
    BackendInfo* backend = nullptr;
    int registrationAnswer = 0;
};

Slapd& slapd() {
    static Slapd& theOne = *new Slapd;
    return theOne;
}

std::unique_ptr<Known> describe(const std::string& name, unsigned syntaxFlags) {
    auto known = std::make_unique<Known>();
    known->name = name;
    known->description.ad_cname = {known->name.size(), known->name.data()};
    known->description.ad_type = &known->type;
    known->type.sat_cname = known->description.ad_cname;
    known->type.sat_syntax = &known->syntax;
    known->syntax.ssyn_flags = syntaxFlags;
    known->syntax.ssyn_validate = [](Syntax*, berval*) -> int { return LDAP_SUCCESS; };
    static MatchingRule textRule = [] {
        MatchingRule rule{};
        rule.smr_normalize = [](slap_mask_t, Syntax*, MatchingRule*, berval*, berval*, void*) -> int {
            return LDAP_OTHER;  // slapd_directory has its own way
        };
        return rule;
    }();
    known->type.sat_equality = &textRule;
    return known;
}

// An entry's attribute: what slapd makes of a name that no schema knows is the
// name in upper case.
AttributeDescription* descriptionFor(const std::string& name) {
    Slapd& s = slapd();
    std::lock_guard guard(s.mutex);
    if (auto found = s.known.find(name); found != s.known.end()) return &found->second->description;
    auto& undefined = s.undefined[name];
    if (!undefined) {
        std::string upper = name;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        undefined = describe(upper, SLAP_SYNTAX_NONE);
    }
    return &undefined->description;
}

void addValue(Entry* entry, const std::string& name, const std::string& value) {
    std::string bare = name;
    if (bare.size() > 7 && strcasecmp(bare.c_str() + bare.size() - 7, ";binary") == 0)
        bare.resize(bare.size() - 7);
    AttributeDescription* description = descriptionFor(bare);
    Attribute** place = &entry->e_attrs;
    while (*place && (*place)->a_desc != description) place = &(*place)->a_next;
    if (!*place) {
        *place = static_cast<Attribute*>(std::calloc(1, sizeof(Attribute)));
        (*place)->a_desc = description;
    }
    berval bytes = {value.size(), const_cast<char*>(value.data())};
    berval copy;
    ber_dupbv(&copy, &bytes);
    ber_bvarray_add(&(*place)->a_vals, &copy);
    (*place)->a_numvals++;
    (*place)->a_nvals = (*place)->a_vals;
}

// "name: text", "name:: base64" or a bare "name:"; false for anything else.
bool readLine(const std::string& line, std::string* name, std::string* value) {
    std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) return false;
    *name = line.substr(0, colon);
    bool base64 = colon + 1 < line.size() && line[colon + 1] == ':';
    std::size_t start = line.find_first_not_of(' ', colon + (base64 ? 2 : 1));
    *value = start == std::string::npos ? "" : line.substr(start);
    if (!base64) return true;
    std::vector<unsigned char> bytes(value->size() + 1);
    int size = lutil_b64_pton(value->c_str(), bytes.data(), bytes.size());
    if (size < 0) return false;
    value->assign(bytes.begin(), bytes.begin() + size);
    return true;
}

bool fill(Entry* entry, const char* text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        std::string name, value;
        if (!readLine(line, &name, &value)) return false;
        if (strcasecmp(name.c_str(), "dn") != 0) {
            addValue(entry, name, value);
            continue;
        }
        if (entry->e_name.bv_val) return false;
        berval dn = {value.size(), value.data()};
        ber_dupbv(&entry->e_name, &dn);
        ber_dupbv(&entry->e_nname, &dn);
    }
    return entry->e_name.bv_val != nullptr;
}

}  // namespace

namespace standin {

void resetSlapd() {
    Slapd& s = slapd();
    std::lock_guard guard(s.mutex);
    s.known.clear();
    s.undefined.clear();
    s.rejected.clear();
    s.filterCode = LDAP_COMPARE_TRUE;
    s.filterTest = nullptr;
    s.parsedTexts = 0;
    s.liveEntries = 0;
    s.backend = nullptr;
    s.registrationAnswer = 0;
    slap_debug = 0;
    connection_pool_max = 16;
}

AttributeDescription* knowAttribute(const std::string& name, bool binarySyntax) {
    return knowAttributeWithFlags(name, binarySyntax ? SLAP_SYNTAX_BINARY : SLAP_SYNTAX_NONE);
}

AttributeDescription* knowAttributeWithFlags(const std::string& name, unsigned syntaxFlags) {
    std::lock_guard guard(slapd().mutex);
    return &(slapd().known[name] = describe(name, syntaxFlags))->description;
}

void filterAnswers(int code) {
    std::lock_guard guard(slapd().mutex);
    slapd().filterCode = code;
}

void testFiltersWith(std::function<int(Entry*, const Filter*)> test) {
    std::lock_guard guard(slapd().mutex);
    slapd().filterTest = std::move(test);
}

void rejectEntriesWith(const std::string& part) {
    std::lock_guard guard(slapd().mutex);
    slapd().rejected = part;
}

int parsedTexts() {
    std::lock_guard guard(slapd().mutex);
    return slapd().parsedTexts;
}

int liveEntries() {
    std::lock_guard guard(slapd().mutex);
    return slapd().liveEntries;
}

void registrationAnswers(int code) {
    std::lock_guard guard(slapd().mutex);
    slapd().registrationAnswer = code;
}

BackendInfo* registeredBackend() {
    std::lock_guard guard(slapd().mutex);
    return slapd().backend;
}

std::string entryText(const Entry* entry) {
    std::string text = "dn: " + std::string(entry->e_name.bv_val, entry->e_name.bv_len) + "\n";
    for (Attribute* attribute = entry->e_attrs; attribute; attribute = attribute->a_next)
        for (unsigned i = 0; i < attribute->a_numvals; ++i)
            text += std::string(attribute->a_desc->ad_cname.bv_val) + ": " +
                    std::string(attribute->a_vals[i].bv_val, attribute->a_vals[i].bv_len) + "\n";
    return text;
}

}  // namespace standin

extern "C" {

int slap_str2ad(const char* name, AttributeDescription** description, const char** text) {
    const standin::Inside inside;
    std::lock_guard guard(slapd().mutex);
    auto found = slapd().known.find(name ? name : "");
    if (found == slapd().known.end()) {
        *text = "attribute type undefined";
        return LDAP_UNDEFINED_TYPE;
    }
    *description = &found->second->description;
    return LDAP_SUCCESS;
}

// As slapd's, the texts lie in the request, and end without a NUL.
int slap_passwd_parse(berval* request, berval* id, berval* oldPassword, berval* newPassword,
                      const char** text) {
    const standin::Inside inside;
    if (request == nullptr) return LDAP_SUCCESS;
    BerElementBuffer buffer{};
    auto* ber = reinterpret_cast<BerElement*>(&buffer);
    ber_init2(ber, request, 0);
    ber_len_t length = 0;
    ber_skip_tag(ber, &length);
    berval* const parts[] = {id, oldPassword, newPassword};
    while (length > 0) {
        const ber_tag_t tag = ber_peek_tag(ber, &length);
        if (tag == LBER_DEFAULT) break;
        if (tag < LDAP_TAG_EXOP_MODIFY_PASSWD_ID || tag > LDAP_TAG_EXOP_MODIFY_PASSWD_NEW) {
            *text = "data decoding error";
            return LDAP_PROTOCOL_ERROR;
        }
        ber_get_stringbv(ber, parts[tag - LDAP_TAG_EXOP_MODIFY_PASSWD_ID], LBER_BV_NOTERM);
    }
    return LDAP_SUCCESS;
}

// The client library's own codes as result codes; results of a server stay.
int slap_map_api2result(SlapReply* rs) {
    static const std::map<int, int> results = {{LDAP_SERVER_DOWN, LDAP_UNAVAILABLE},
                                               {LDAP_LOCAL_ERROR, LDAP_OTHER},
                                               {LDAP_ENCODING_ERROR, LDAP_PROTOCOL_ERROR},
                                               {LDAP_DECODING_ERROR, LDAP_PROTOCOL_ERROR},
                                               {LDAP_TIMEOUT, LDAP_UNAVAILABLE},
                                               {LDAP_AUTH_UNKNOWN, LDAP_AUTH_METHOD_NOT_SUPPORTED},
                                               {LDAP_FILTER_ERROR, LDAP_OTHER},
                                               {LDAP_USER_CANCELLED, LDAP_OTHER},
                                               {LDAP_PARAM_ERROR, LDAP_PROTOCOL_ERROR},
                                               {LDAP_NO_MEMORY, LDAP_OTHER},
                                               {LDAP_CONNECT_ERROR, LDAP_UNAVAILABLE},
                                               {LDAP_NOT_SUPPORTED, LDAP_UNWILLING_TO_PERFORM},
                                               {LDAP_CONTROL_NOT_FOUND, LDAP_PROTOCOL_ERROR},
                                               {LDAP_NO_RESULTS_RETURNED, LDAP_NO_SUCH_OBJECT},
                                               {LDAP_MORE_RESULTS_TO_RETURN, LDAP_OTHER},
                                               {LDAP_CLIENT_LOOP, LDAP_LOOP_DETECT},
                                               {LDAP_REFERRAL_LIMIT_EXCEEDED, LDAP_LOOP_DETECT}};
    auto found = results.find(rs->sr_err);
    if (found != results.end()) return found->second;
    return rs->sr_err < 0 ? LDAP_OTHER : rs->sr_err;
}

// The reply's controls and then these, in one new block of the operation's memory.
int slap_add_ctrls(Operation* op, SlapReply* rs, LDAPControl** controls) {
    const standin::Inside inside;
    std::vector<LDAPControl*> all;
    for (LDAPControl** one = rs->sr_ctrls; one && *one; ++one) all.push_back(*one);
    for (LDAPControl** one = controls; *one; ++one) all.push_back(*one);
    int count = static_cast<int>(all.size());
    all.push_back(nullptr);
    auto** block =
        static_cast<LDAPControl**>(op->o_tmpalloc(all.size() * sizeof(LDAPControl*), op->o_tmpmemctx));
    std::copy(all.begin(), all.end(), block);
    if (rs->sr_flags & REP_CTRLS_MUSTBEFREED) op->o_tmpfree(rs->sr_ctrls, op->o_tmpmemctx);
    rs->sr_ctrls = block;
    rs->sr_flags |= REP_CTRLS_MUSTBEFREED;
    return count;
}

int backend_add(BackendInfo* info) {
    {
        std::lock_guard guard(slapd().mutex);
        slapd().backend = info;
    }
    const int initialized = info->bi_init ? info->bi_init(info) : 0;
    std::lock_guard guard(slapd().mutex);
    return slapd().registrationAnswer != 0 ? slapd().registrationAnswer : initialized;
}

Entry* str2entry(char* text) {
    const standin::Inside inside;
    {
        std::lock_guard guard(slapd().mutex);
        slapd().parsedTexts++;
        if (!slapd().rejected.empty() && std::strstr(text, slapd().rejected.c_str())) return nullptr;
        slapd().liveEntries++;
    }
    auto* entry = static_cast<Entry*>(std::calloc(1, sizeof(Entry)));
    if (fill(entry, text)) return entry;
    entry_free(entry);
    return nullptr;  // NOLINT(clang-analyzer-unix.Malloc): the analyzer does not see that it is freed
}

Entry* entry_alloc() {
    const standin::Inside inside;
    std::lock_guard guard(slapd().mutex);
    slapd().liveEntries++;
    return static_cast<Entry*>(std::calloc(1, sizeof(Entry)));
}

// No entry here is of a special class. That it was asked is noted as slapd does.
int is_entry_objectclass(Entry* entry, ObjectClass* /*objectClass*/, unsigned flags) {
    if (flags & SLAP_OCF_SET_FLAGS) entry->e_ocflags |= SLAP_OC__END;
    return 0;
}

void entry_free(Entry* entry) {
    const standin::Inside inside;
    while (Attribute* attribute = entry->e_attrs) {
        entry->e_attrs = attribute->a_next;
        ber_bvarray_free(attribute->a_vals);
        std::free(attribute);
    }
    ber_memfree(entry->e_name.bv_val);
    ber_memfree(entry->e_nname.bv_val);
    std::free(entry);
    std::lock_guard guard(slapd().mutex);
    slapd().liveEntries--;
}

int test_filter(Operation*, Entry* entry, Filter* filter) {
    std::function<int(Entry*, const Filter*)> test;
    {
        std::lock_guard guard(slapd().mutex);
        if (!slapd().filterTest) return slapd().filterCode;
        test = slapd().filterTest;
    }
    return test(entry, filter);
}

}  // extern "C"
