// SPDX-License-Identifier: Apache-2.0
// The configuration directives, one setting each.

#include <strings.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "backend/backend.h"
#include "backend/base/log.h"
#include "backend/overlays.h"
#include "vorn/logger.h"
#include "vorn/numbers.h"
#include "vorn/properties.h"
#include "vorn/settings.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

constexpr int kAccepted = 0;
constexpr int kRefused = 1;

// Where a directive stands.
struct Place {
    const char* fileName;
    int line;
};

bool equals(const char* a, const char* b) {
    return strcasecmp(a, b) == 0;
}

// Says what is wrong: in slapd's debug log when slapd shows one, otherwise in the error
// log, so that the administrator sees it.
int refuse(const Place& place, const std::string& complaint) {
    const std::string text =
        std::string(place.fileName) + ": line " + std::to_string(place.line) + ": " + complaint;
    if (slap_debug != 0) {
        ldap_log_printf(nullptr, LDAP_DEBUG_ANY, "%s\n", text.c_str());
    } else {
        JError("%s", text.c_str());
    }
    return kRefused;
}

bool setBoolean(bool* setting, const char* value) {
    if (equals(value, "true")) {
        *setting = true;
    } else if (equals(value, "false")) {
        *setting = false;
    } else {
        return false;
    }
    return true;
}

// Whole numbers are 32 bits wide here and always were: larger ones wrap before
// they are tested, and configurations rely on what is then refused.
bool setInteger(std::int64_t* setting, const char* value, std::int32_t least) {
    const auto number = static_cast<std::int32_t>(std::strtol(value, nullptr, 10));
    if (number < least) return false;
    *setting = number;
    return true;
}

bool setReal(float* setting, const char* value) {
    const double number = std::strtod(value, nullptr);
    // What a float cannot hold is infinite: converting it would have no defined result.
    const double most = std::numeric_limits<float>::max();
    const float real = number > most ? std::numeric_limits<float>::infinity() : static_cast<float>(number);
    if (!(real > 0)) return false;
    *setting = real;
    return true;
}

// A number of bytes. A letter at its end multiplies it by 1,024 or a power of that. The
// whole word must fit, although other numbers are read more freely: a mistake here could
// take all memory of the machine.
bool setBytes(std::uint64_t* setting, std::string_view word) {
    static constexpr std::string_view kUnits = "KMG";
    const std::size_t unit =
        word.empty() ? std::string_view::npos : kUnits.find(vorn::upper(word.substr(word.size() - 1)));
    const unsigned shift = unit == std::string_view::npos ? 0 : 10 * (static_cast<unsigned>(unit) + 1);
    if (shift != 0) word.remove_suffix(1);
    const auto number = vorn::parseNumber<std::uint64_t>(word);
    if (!number || *number > std::numeric_limits<std::uint64_t>::max() >> shift) return false;
    *setting = *number << shift;
    return true;
}

struct Boolean {
    bool* setting;
    bool operator()(const char* value) const { return setBoolean(setting, value); }
};
struct Integer {
    std::int64_t* setting;
    std::int32_t least;
    bool operator()(const char* value) const { return setInteger(setting, value, least); }
};
struct Real {
    float* setting;
    bool operator()(const char* value) const { return setReal(setting, value); }
};

struct Bytes {
    std::uint64_t* setting;
    bool operator()(const char* value) const { return setBytes(setting, value); }
};

struct Directive {
    const char* name;
    std::variant<Boolean, Integer, Real, Bytes> set;
};

const std::array kDirectives = {
    Directive{"vex-auth-prefer-cache", Boolean{&gPreferCacheAuth}},
    Directive{"dirgate.vextranslate.fetchbydnuid", Boolean{&gFetchByDnUID}},
    Directive{"dirgate.cache.enabled", Boolean{&gCacheEnabled}},
    Directive{"dirgate.cache.max.lists", Integer{&gCacheMaxLists, 1}},
    Directive{"dirgate.cache.max.objects", Integer{&gCacheMaxObjects, 1}},
    Directive{"dirgate.cache.max.bytes", Bytes{&gCacheMaxBytes}},
    Directive{"dirgate.cache.ttl", Integer{&gCacheTTL, 1}},
    Directive{"dirgate.cache.negative.ttl", Integer{&gCacheNegTTL, 1}},
    Directive{"dirgate.cache.hash.loadfactor", Real{&gCacheHashLoadFactor}},
    Directive{"dirgate.cache.credential.expires", Integer{&gCredExpire, 1}},
    Directive{"dirgate.cache.credential.max", Integer{&gCredMax, 1}},
    Directive{"dirgate.performance.log.interval", Integer{&gLogInterval, 0}},
    Directive{"dirgate.netgroup.use.rfc2307nisnetgroup", Boolean{&gNetgroupUseRfc2307}},
    Directive{"dirgate.paged.critical", Boolean{&gPagedCritical}},
    Directive{"dirgate.search.report.errors", Boolean{&gSearchReportErrors}},
    Directive{"dirgate.ldap.standard", Boolean{&gLdapStandard}},
};

constexpr char kTranslation[] = "vextranslation";

const Directive* findDirective(const char* name) {
    for (const Directive& directive : kDirectives) {
        if (equals(name, directive.name)) return &directive;
    }
    return nullptr;
}

// Makes the file's entries the translation map. Throws what loading throws. A map
// that it replaces stays: whoever took the pointer may still hold it.
void loadTranslation(const char* fileName) {
    static auto& maps = *new std::vector<std::unique_ptr<vorn::Properties>>;
    std::unique_ptr<vorn::Properties> map(new (std::nothrow) vorn::Properties);
    if (map != nullptr) map->load(fileName, false);
    gTranslationMap = map.get();
    if (map != nullptr) maps.push_back(std::move(map));
    vorn::Logger::ReconfigureLevels(vorn::Props(false, false));
}

int configureTranslation(const Place& place, int argc, char** argv) {
    if (argc < 2) {
        return refuse(place, std::string("missing filenamein vextranslation line: ") + argv[0] + ".");
    }
    try {
        loadTranslation(argv[1]);
    } catch (const std::exception& error) {
        return refuse(place, error.what());
    }
    if (gTranslationMap == nullptr) {
        return refuse(place, std::string("Properties(") + argv[1] + ") failed");
    }
    if (slap_debug != 0) gTranslationMap->dump();
    return kAccepted;
}

// A line with the wrong number of words has no effect, and neither has a name
// that nobody knows: configurations in use carry such lines.
int configure(const Place& place, int argc, char** argv) {
    if (equals(argv[0], kTranslation)) return configureTranslation(place, argc, argv);
    const Directive* directive = findDirective(argv[0]);
    if (directive == nullptr || argc != 2) return kAccepted;
    const bool valid = std::visit([&](const auto& set) { return set(argv[1]); }, directive->set);
    if (valid) return kAccepted;
    return refuse(place, std::string(directive->name) + "'s value '" + argv[1] + "' is invalid.");
}

// slapd answers a critical control that the back-end does not list with 12. It
// reads the list when it starts the database, after all directives.
void listControls(BackendInfo* bi, bool paged, bool standard) {
    static char pagedResults[] = LDAP_CONTROL_PAGEDRESULTS;
    static char assertion[] = LDAP_CONTROL_ASSERT;
    static char manageDsaIt[] = LDAP_CONTROL_MANAGEDSAIT;
    static char* pages[] = {pagedResults, nullptr};
    static char* all[] = {pagedResults, assertion, manageDsaIt, nullptr};
    bi->bi_controls = paged ? pages : nullptr;
    if (standard) bi->bi_controls = all;
    bi->bi_ctrls[slap_cids.sc_pagedResults] = paged || standard ? 1 : 0;
    bi->bi_ctrls[slap_cids.sc_assert] = standard ? 1 : 0;
    bi->bi_ctrls[slap_cids.sc_manageDSAit] = standard ? 1 : 0;
}

bool isOurs(const char* name) {
    return equals(name, kTranslation) || findDirective(name) != nullptr;
}

}  // namespace

int vex_back_config(BackendInfo* bi, const char* fileName, int line, int argc, char** argv) try {
    const int answer = configure({fileName, line}, argc, argv);
    listControls(bi, gPagedCritical, gLdapStandard);
    installHooks(bi, gLdapStandard);
    return answer;
} catch (const std::exception& error) {
    JError("%s: line %d: %s", fileName, line, error.what());
    return kRefused;
}

int vex_back_db_config(BackendDB* be, const char* fileName, int line, int argc, char** argv) {
    // slapd offers every line to the database first; an overlay's own directive
    // reaches the overlay only when the database does not accept it.
    if (!isOurs(argv[0]) && overlay_knows_directive(argv[0])) return SLAP_CONF_UNKNOWN;
    return vex_back_config(be->bd_info, fileName, line, argc, argv);
}
