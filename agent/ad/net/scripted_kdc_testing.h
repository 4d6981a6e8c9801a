// SPDX-License-Identifier: Apache-2.0
// A KDC that does what a test says, in the test's process: it takes the place of the network.
//
//     ScriptedKdc kdc;
//     kdc.addPerson("ann@EXAMPLE.COM", "secret");
//     kdc.addKey("host/web.example.com@EXAMPLE.COM", keytab);
//     KdcConversation conversation([&](const std::string&) { return &kdc.controllers(); }, soon(),
//                                  kdc.carrier());
//     ... what is tested ...
//     EXPECT_THAT(kdc.takeAsked(), ElementsAre("ann@EXAMPLE.COM for krbtgt/EXAMPLE.COM@EXAMPLE.COM"));
//
// Speaks for every realm. Kerberos: RFC 4120. Every key is an AES one, made of a password; that
// of a service, which everybody may have a ticket for, of its own name. For one thread.
#pragma once

#include <krb5.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ad/net/kdc.h"

namespace vexagent {

class ScriptedKdc {
  public:
    ScriptedKdc();

    // Everybody by a whole name, "ann@EXAMPLE.COM".
    void addPerson(const std::string& name, const std::string& password);
    // Writes the key of a name to a keytab, and knows it as somebody with that key. Another
    // password than the last one's makes another key.
    void addKey(const std::string& name, const std::string& keytab, const std::string& password = "key");
    // A key in the keytab only: the domain has another one.
    static void writeKey(const std::string& name, const std::string& keytab, const std::string& password);

    // From here on somebody, or what is asked for, is refused with a code of the library's,
    // before a proof is looked at; 0: not any more.
    void refuse(const std::string& name, krb5_error_code code) { m_refusals[name] = code; }
    // Answers every message so; "": as usual.
    std::string always;
    // How long tickets last.
    std::time_t lifetime = 36'000;
    bool answers = true;
    // The options of the last question that was answered.
    krb5_flags options = 0;

    // Who asked for what, "CLIENT for SERVICE", with " proved" behind who has shown a proof
    // and " by ticket" behind who has shown a ticket; what was asked until now does not
    // count any more.
    std::vector<std::string> takeAsked() { return std::exchange(m_asked, {}); }

    // The bytes of an answer that is an error.
    std::string error(krb5_error_code code) const;

    KdcCarrier carrier();
    // One, for every realm.
    Controllers& controllers() { return m_controllers; }

  private:
    struct FreeContext {
        void operator()(krb5_context context) const { krb5_free_context(context); }
    };

    std::string answer(std::string_view message);
    std::string answerFirst(const krb5_kdc_req& request);
    std::string answerByTicket(const krb5_kdc_req& request);
    std::string ticketFor(const krb5_kdc_req& request, krb5_principal client, krb5_msgtype type,
                          const krb5_keyblock& replyKey);
    std::string nameOf(krb5_const_principal principal) const;
    std::string passwordOf(const std::string& name) const;
    krb5_error_code refusalOf(const std::string& name) const;

    std::unique_ptr<std::remove_pointer_t<krb5_context>, FreeContext> m_context;
    std::map<std::string, std::string> m_passwords;
    std::map<std::string, krb5_error_code> m_refusals;
    std::vector<std::string> m_asked;
    Controllers m_controllers{[] { return 0.5; }};
};

}  // namespace vexagent
