// SPDX-License-Identifier: Apache-2.0
#include "translate/ldif.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "translate/map.h"
#include "vex/handles.h"
#include "vorn/dn.h"
#include "vorn/remembered.h"
#include "vorn/strings.h"
#include "vorn/utf8.h"

#include "backend/base/slapd.h"

namespace {

// Room for the complaints that were made: names of attributes, each with its object's DN.
constexpr std::size_t kMostLeftOut = std::size_t{1} << 20;

constexpr char kNoText[] = "<binary data>";

// The agent's category of objects that people log in with; the map may name it
// either way.
constexpr char kUserType[] = "User";

const char* codeText(vexCode code) {
    const char* text = "";
    vexGetVexCodeStr(code, &text);
    return text;
}

// Written into the text's own buffer. The encoder adds a NUL, where the text has its own.
void appendBase64(std::string* ldif, std::string_view bytes) {
    const std::size_t start = ldif->size();
    const std::size_t length = (bytes.size() + 2) / 3 * 4;
    ldif->resize(start + length);
    lutil_b64_ntop(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), ldif->data() + start,
                   length + 1);
}

std::string_view bytesOf(const vexBlob& value) {
    return {reinterpret_cast<const char*>(value.data), value.length};
}

vexBlob blobOf(std::string_view text) {
    return {static_cast<std::uint32_t>(text.size()), reinterpret_cast<const unsigned char*>(text.data())};
}

// The syntax of an attribute's values; null when slapd does not know the attribute.
Syntax* syntaxOf(const char* name) {
    AttributeDescription* description = nullptr;
    const char* reason = nullptr;
    return slap_str2ad(name, &description, &reason) == LDAP_SUCCESS ? description->ad_type->sat_syntax
                                                                    : nullptr;
}

bool isBinary(const Syntax* syntax) {
    return syntax != nullptr && (syntax->ssyn_flags & SLAP_SYNTAX_BINARY) != 0;
}

// Whether bytes that are not UTF-8 are no value of the syntax. They never are for a text.
bool refuses(Syntax* syntax, std::string_view bytes) {
    if (syntax == nullptr || isBinary(syntax) || syntax->ssyn_validate == nullptr) return false;
    std::string copy(bytes);
    berval value = {copy.size(), copy.data()};
    return syntax->ssyn_validate(syntax, &value) != LDAP_SUCCESS;
}

// Whether slapd would refuse the value, and with it the entry, because it is no UTF-8 text.
bool isUnreadableText(const char* name, const vexBlob& value) {
    if (value.data == nullptr) return false;
    const std::string_view bytes = bytesOf(value);
    return !vorn::isUtf8(bytes) && refuses(syntaxOf(name), bytes);
}

// A graphic character of ASCII.
bool isGraphic(unsigned char c) {
    return c > ' ' && c < 0x7F;
}

// What the log shows of an attribute. The bytes of a value are followed by a NUL.
const char* shownValue(const vex::BlobList& list, bool binary) {
    if (list.count() == 0) return kNoText;
    const unsigned char* data = list.values()[0].data;
    if (data == nullptr || (!binary && !isGraphic(data[0]))) return kNoText;
    return reinterpret_cast<const char*>(data);
}

// One conversion.
class Conversion {
  public:
    Conversion(vexSession* session, const vexObject* object, const LdifRequest& request)
        : m_session(session), m_object(object), m_request(request), m_logs(JPrintfEnabled()) {
        m_ldif.reserve(4096);  // of a common object
    }

    std::string run();
    // Whether run has logged an error.
    bool complained() const { return m_complained; }

  private:
    void chooseMapping();
    bool categoryFits(std::string_view category) const;

    void complain(const char* attribute, vexCode code);

    void writeDn();
    void writeCnAndParent(const std::string& dn);
    void protectDn(std::size_t start);

    void writeMapped();
    void writeMappedAttribute(const std::string& key, const std::string& agentAttribute);

    void writeRemaining();
    void writeRemainingAttribute(const char* name);
    bool replaceWhileMapping(const char* name);
    void writeAsItIs(const char* name);

    void writeValues(const char* name, const vex::BlobList& values);
    void tellOfLeftOut(const char* name);

    bool isRequested(std::string_view name) const {
        return m_request.requested.empty() || vorn::stringInList(m_request.requested.list(), name, false);
    }

    vexSession* const m_session;
    const vexObject* const m_object;
    const LdifRequest& m_request;
    const bool m_logs;  // whether anybody reads what is logged

    std::string m_prefix;                              // "OBJECTTYPE."
    std::unique_ptr<vorn::Properties::Map> m_mapping;  // the entries below the prefix; null: no mapping
    std::vector<std::string_view> m_written;           // LDAP names, views of m_mapping's keys
    std::string m_ldif;
    bool m_complained = false;
};

std::string Conversion::run() {
    chooseMapping();
    writeDn();
    if (m_mapping != nullptr) writeMapped();
    writeRemaining();
    return std::move(m_ldif);
}

void Conversion::chooseMapping() {
    if (m_request.objectType.empty()) return;
    vex::UniqueString category;
    const vexCode code = vex::readAttribute(m_session, m_object, VORN_OBJECT_CATEGORY, &category);
    if (code != VEX_OK) {
        complain(VORN_OBJECT_CATEGORY, code);
        return;
    }
    if (gTranslationMap == nullptr || !categoryFits(category.get())) return;
    m_prefix = translation_key(m_request.objectType, "");
    m_mapping = gTranslationMap->getMap(m_prefix);
}

bool Conversion::categoryFits(std::string_view category) const {
    const std::string type = translate_name(gTranslationMap, m_request.objectType, m_request.objectType);
    return vorn::equalsIgnoreCase(type, category) || (category == AD_USER_CATEGORY && type == kUserType);
}

void Conversion::complain(const char* attribute, vexCode code) {
    JError("Failed to retrieve %s from object: %s", attribute, codeText(code));
    m_complained = true;
}

void Conversion::writeDn() {
    if (m_request.omitDn) {
        m_ldif.append("dn: \n");
        return;
    }
    vex::UniqueString dn;
    const vexCode code = vex::readAttribute(m_session, m_object, AD_OBJECT_DN_TEXT, &dn);
    if (code != VEX_OK) {
        JError("object_to_ldif: Error rc = %s (%d) from vexGetAttributeStr getting dn", codeText(code), code);
        m_complained = true;
        return;
    }
    m_ldif.append("dn: ");
    const std::size_t start = m_ldif.size();
    writeCnAndParent(dn.get());
    protectDn(start);
    m_ldif.append("\n");
}

// The DN with another first RDN when the map asks for one and the object has it.
void Conversion::writeCnAndParent(const std::string& dn) {
    std::string parent;
    const std::string attribute =
        m_mapping == nullptr ? "" : translate_name(gTranslationMap, m_prefix + "CN", "");
    if (!attribute.empty()) {
        vex::UniqueString cn;
        const vexCode code = vex::readAttribute(m_session, m_object, attribute.c_str(), &cn);
        if (code == VEX_OK) {
            parent = vorn::DN::parent(dn);
            m_ldif.append("cn=").append(cn.get()).append(",").append(parent);
        } else {
            complain(attribute.c_str(), code);
        }
    }
    // A DN without a parent thus stays whole behind its new "cn=".
    if (parent.empty()) m_ldif.append(dn);
}

// The value that became the "cn=" may hold a line break. It could then write lines of its
// own into the entry, such as somebody else's uidNumber. So a DN with a line break is
// written in base64.
void Conversion::protectDn(std::size_t start) {
    if (m_ldif.find('\n', start) == std::string::npos) return;
    const std::string dn = m_ldif.substr(start);
    m_ldif.resize(start - 2);
    m_ldif.append(":: ");
    appendBase64(&m_ldif, dn);
}

void Conversion::writeMapped() {
    for (const auto& [key, agentAttribute] : *m_mapping) {
        if (!isRequested(agentAttribute)) continue;
        if (vorn::equalsIgnoreCase(agentAttribute, m_request.objectType)) continue;
        writeMappedAttribute(key, agentAttribute);
    }
}

void Conversion::writeMappedAttribute(const std::string& key, const std::string& agentAttribute) {
    vex::BlobList values;
    const vexCode code = values.read(m_session, m_object, agentAttribute.c_str());
    if (code != VEX_OK) {
        JPrintf("object_to_ldif: %s (%d):%s from vexGetAttributeBlobList", codeText(code), code,
                agentAttribute.c_str());
        return;
    }
    const char* ldapName = key.c_str() + m_prefix.size();
    // The "cn" entry is there for the DN's sake; as an attribute it is for those
    // who ask for it by name.
    if (!m_request.includeCn && vorn::equalsIgnoreCase(ldapName, AD_CN)) return;
    if (vorn::equalsIgnoreCase(ldapName, "dn")) return;
    if (m_logs) JPrintf("object_to_ldif: mapping %s to %s", agentAttribute.c_str(), ldapName);
    writeValues(ldapName, values);
    m_written.emplace_back(ldapName);
}

void Conversion::writeRemaining() {
    unsigned cursor = 0;
    char* next = nullptr;
    vexCode code = vexGetFirstAttribute(m_session, m_object, &cursor, &next);
    while (code == VEX_OK) {
        const vex::UniqueString name(next);
        if (name != nullptr) writeRemainingAttribute(name.get());
        code = vexGetNextAttribute(m_session, m_object, &cursor, &next);
    }
}

void Conversion::writeRemainingAttribute(const char* name) {
    if (name[0] == '_') return;
    if (std::find(m_written.begin(), m_written.end(), std::string_view(name)) != m_written.end()) return;
    if (!isRequested(name)) return;
    if (m_mapping != nullptr && replaceWhileMapping(name)) return;
    writeAsItIs(name);
}

// A translated object shows the class that was asked for and no category.
bool Conversion::replaceWhileMapping(const char* name) {
    if (vorn::equalsIgnoreCase(name, AD_OBJECT_CATEGORY)) {
        if (m_logs) JPrintf("object_to_ldif: skipping %s", name);
        return true;
    }
    if (vorn::equalsIgnoreCase(name, AD_OBJECT_CLASS)) {
        const vexBlob classes[] = {blobOf("top"), blobOf(m_request.objectType)};
        attr_values_to_ldif(&m_ldif, name, classes, 2);
        return true;
    }
    return false;
}

void Conversion::writeAsItIs(const char* name) {
    vex::BlobList values;
    const vexCode code = values.read(m_session, m_object, name);
    if (code != VEX_OK) {
        // Log readers know this line by the name of the list's reader.
        JPrintf("object_to_ldif: Error rc = %s (%d) from vexGetAttributeList", codeText(code), code);
        return;
    }
    const bool binary = isBinary(syntaxOf(name));
    if (m_logs) {
        JPrintf("object_to_ldif: attrName = %s, value[0] = %s", name, shownValue(values, binary));
    }
    if (binary) {
        attr_values_to_ldif(&m_ldif, std::string(name) + ";binary", values.values(), values.count());
    } else {
        writeValues(name, values);
    }
}

// With one value that slapd does not take, the whole person would be lost.
void Conversion::writeValues(const char* name, const vex::BlobList& values) {
    bool whole = true;
    for (const vexBlob& value : std::span(values.values(), static_cast<std::size_t>(values.count()))) {
        if (isUnreadableText(name, value))
            whole = false;
        else
            attr_values_to_ldif(&m_ldif, name, &value, 1);
    }
    if (!whole) tellOfLeftOut(name);
}

// Once: the object is read again and again.
void Conversion::tellOfLeftOut(const char* name) {
    static vorn::Remembered& told = *new vorn::Remembered(kMostLeftOut);
    vex::UniqueString dn;
    if (vex::readAttribute(m_session, m_object, AD_OBJECT_DN_TEXT, &dn) != VEX_OK) return;
    if (!told.add(std::string(name) + ' ' + dn.get())) return;
    JError("object_to_ldif: left out what is not UTF-8 of %s of %s", name, dn.get());
}

}  // namespace

std::string object_to_ldif(vexSession* session, const vexObject* object, const LdifRequest& request,
                           bool* complained) {
    Conversion conversion(session, object, request);
    std::string ldif = conversion.run();
    if (complained != nullptr && conversion.complained()) *complained = true;
    return ldif;
}

void attr_values_to_ldif(std::string* ldif, std::string_view name, const vexBlob* values, int count) {
    for (const vexBlob* value = values; value != values + count; ++value) {
        ldif->append(name);
        if (value->data == nullptr) continue;
        const std::string_view bytes = bytesOf(*value);
        if (vorn::isprintable(bytes)) {
            ldif->append(": ").append(bytes);
        } else {
            ldif->append(":: ");
            appendBase64(ldif, bytes);
        }
        ldif->append("\n");
    }
}
