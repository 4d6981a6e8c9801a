// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ldap_password_change.h"

#include <string_view>

#include "vorn/utf8.h"

namespace vexagent {
namespace {

using Of = ChangeFailure::Of;

void appendUnit(vorn::Secret* text, char32_t unit) {
    const char bytes[] = {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    text->append({bytes, sizeof bytes});
}

void appendCharacter(vorn::Secret* text, char32_t character) {
    if (character < 0x10000) {
        appendUnit(text, character);
        return;
    }
    appendUnit(text, 0xD800 + ((character - 0x10000) >> 10));
    appendUnit(text, 0xDC00 + ((character - 0x10000) & 0x3FF));
}

// Of one character of UTF-8.
char32_t characterOf(std::string_view bytes) {
    static constexpr unsigned char kOfTheFirst[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    char32_t character = static_cast<unsigned char>(bytes.front()) & kOfTheFirst[bytes.size()];
    for (const char byte : bytes.substr(1)) character = character << 6 | (byte & 0x3F);
    return character;
}

// Controllers say more in their texts, by a number of Windows' own: "...: 0000052D: ...".
bool tells(const LdapFailure& failure, std::string_view error) {
    return failure.text.find(std::string(error) + ":") != std::string::npos;
}

}  // namespace

std::optional<vorn::Secret> unicodePassword(const std::string& password) {
    vorn::Secret text;
    appendUnit(&text, '"');
    for (std::string_view rest = password; !rest.empty();) {
        const std::size_t length = vorn::utf8Length(rest);
        if (length == 0) return std::nullopt;
        appendCharacter(&text, characterOf(rest.substr(0, length)));
        rest.remove_prefix(length);
    }
    appendUnit(&text, '"');
    return text;
}

ChangeFailure refusedChange(const LdapFailure& failure) {
    if (failure.lost) return {Of::Service, failure};
    if (tells(failure, "00000056"))  // ERROR_INVALID_PASSWORD
        return {Of::OldPassword, LdapFailure(LDAP_INVALID_CREDENTIALS, failure.text)};
    // ERROR_PASSWORD_RESTRICTION, with one code or another
    if (tells(failure, "0000052D") || failure.code == LDAP_CONSTRAINT_VIOLATION)
        return {Of::NewPassword, failure};
    const bool isForbidden =
        failure.code == LDAP_INSUFFICIENT_ACCESS || failure.code == LDAP_UNWILLING_TO_PERFORM;
    return {isForbidden ? Of::Leave : Of::Service, failure};
}

Expected<Done, ChangeFailure> changeByLdap(Domain& domain, const PasswordChange& change,
                                           const Deadline& deadline) {
    const auto from = unicodePassword(change.oldPassword);
    const auto to = unicodePassword(change.newPassword);
    if (!from || !to)
        return vorn::unexpected(ChangeFailure{!from ? Of::OldPassword : Of::NewPassword,
                                              LdapFailure(LDAP_INVALID_CREDENTIALS, "it is not UTF-8")});
    bool isIn = false;
    const auto changed = domain.askOne(deadline, [&](Link& link) -> Expected<Done, LdapFailure> {
        const auto bound = link.checkPassword(change.dn, change.oldPassword, deadline);
        if (!bound) return vorn::unexpected(bound.error());
        isIn = true;
        return link.changePassword(change.dn, *from, *to, deadline);
    });
    if (changed) return Done();
    if (!isIn) return vorn::unexpected(ChangeFailure{Of::OldPassword, changed.error()});
    return vorn::unexpected(refusedChange(changed.error()));
}

}  // namespace vexagent
