// SPDX-License-Identifier: Apache-2.0
#include "search/attributes.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "backend/base/settings.h"
#include "backend/base/supported_attributes.h"
#include "translate/map.h"
#include "vex/vex.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

// Names beyond this many are not asked for.
constexpr std::size_t kMaxAttributes = 127;
// With more names than this there is no room for those that the module adds.
constexpr std::size_t kMaxBeforeOwn = 124;

class Translation {
  public:
    Translation(const std::string& objectType, const std::string& agentType)
        : m_objectType(objectType), m_agentType(agentType) {}

    AttributeList translate(std::vector<std::string> asked) const {
        const bool includeCn = std::any_of(asked.begin(), asked.end(), [](const std::string& name) {
            return vorn::equalsIgnoreCase(name, AD_CN);
        });
        std::vector<std::string> names;
        for (const std::string& name : asked) {
            std::string translated = agentName(name);
            if (!translated.empty()) names.push_back(std::move(translated));
        }
        if (!m_agentType.empty() && !names.empty() && names.size() <= kMaxBeforeOwn)
            addOwn(includeCn, &names);
        return {std::move(asked), std::move(names), includeCn};
    }

  private:
    std::string mapped(std::string_view name) const {
        return translate_name(gTranslationMap, translation_key(m_objectType, name), "");
    }

    // Empty for an attribute that is not asked for by name.
    std::string agentName(const std::string& name) const {
        if (name == "*") return "";
        if (name == LDAP_NO_ATTRS) return AD_OBJECT_DN_TEXT;
        if (m_agentType.empty()) return name;
        std::string result = mapped(name);
        return result.empty() ? name : result;
    }

    // What a translated object cannot be made without: its DN's "cn", and the marks
    // that say what it is.
    void addOwn(bool includesCn, std::vector<std::string>* names) const {
        if (!includesCn) {
            std::string cn = mapped(AD_CN);
            if (!cn.empty()) names->push_back(std::move(cn));
        }
        names->emplace_back(VORN_OBJECT_CATEGORY);
        names->emplace_back(VORN_NSSENTRY_INVALID);
    }

    const std::string& m_objectType;
    const std::string& m_agentType;
};

// The thread's last translation, and what it was made of.
struct LastTranslation {
    std::uint64_t mapVersion = 0;
    std::string objectType;
    std::string agentType;
    AttributeList list;
};

// The thread's last answer, and what it was given for.
struct LastAnswer {
    unsigned listVersion = 0;
    AttributeNames attributes;
    bool cacheable = false;
};

// The names up to the first empty one.
std::vector<std::string> textsOf(const AttributeName* names) {
    std::vector<std::string> texts;
    for (const AttributeName* name = names; name != nullptr && texts.size() < kMaxAttributes; ++name) {
        if (name->an_name.bv_val == nullptr || name->an_name.bv_val[0] == '\0') break;
        texts.emplace_back(name->an_name.bv_val);
    }
    return texts;
}

// Whether textsOf would give these.
bool areTexts(const AttributeName* names, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        if (names == nullptr || names->an_name.bv_val == nullptr || text != names->an_name.bv_val)
            return false;
        ++names;
    }
    const bool ended =
        names == nullptr || names->an_name.bv_val == nullptr || names->an_name.bv_val[0] == '\0';
    return ended || texts.size() == kMaxAttributes;
}

}  // namespace

const AttributeList& translateAttributes(const AttributeName* names, const std::string& objectType,
                                         const std::string& agentType) {
    thread_local LastTranslation last;
    const std::uint64_t mapVersion = gTranslationMap == nullptr ? 0 : gTranslationMap->version();
    if (last.mapVersion == mapVersion && last.objectType == objectType && last.agentType == agentType &&
        areTexts(names, last.list.asked)) {
        return last.list;
    }
    AttributeList list = Translation(objectType, agentType).translate(textsOf(names));
    last = {mapVersion, objectType, agentType, std::move(list)};
    return last.list;
}

bool attributesAreCacheable(const AttributeNames& attributes) {
    if (!supportedAttributesAreKnown()) return false;
    thread_local LastAnswer last;
    const unsigned listVersion = supportedAttributesVersion();
    if (last.listVersion == listVersion && last.attributes == attributes) return last.cacheable;
    const bool cacheable = std::all_of(attributes.begin(), attributes.end(), [](const std::string& name) {
        return name.starts_with('_') || isSupportedAttribute(name);
    });
    last = {listVersion, attributes, cacheable};
    return cacheable;
}
