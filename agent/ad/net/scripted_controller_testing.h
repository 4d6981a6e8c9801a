// SPDX-License-Identifier: Apache-2.0
// A domain controller that does what a test says: an LDAP server on loopback, with TLS.
//
//     ScriptedController controller;
//     controller.answer([](Asked& asked, Talk& talk) {
//         if (asked.kind != Asked::Kind::Search) return false;
//         talk.entry(asked.id, "CN=Ann,DC=example,DC=com", {{"uid", {"ann"}}});
//         talk.done(asked.id);
//         return true;
//     });
//     ... connect to controller.peer() ...
//     EXPECT_EQ(controller.count(Asked::Kind::Search), 1u);
//
// LDAP: RFC 4511. Each connection has a thread, which ends with the controller.
#pragma once

#include <gnutls/gnutls.h>
#include <ldap.h>

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "agent/ad/net/peer.h"
#include "agent/ad/options.h"
#include "agent/directory/directory.h"
#include "vorn/descriptor.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

// One message of a client.
struct Asked {
    enum class Kind { Bind, Search, StartTls, Unbind, Other };
    Kind kind = Kind::Other;
    int id = 0;
    bool tls = false;        // whether it came under TLS
    std::string name{};      // a bind's
    std::string password{};  // a simple bind's
    std::string base{};      // a search's, as all below
    int scope = 0;
    std::string filter{};
    std::vector<std::string> attributes{};
    bool domainScope = false;  // whether referrals are not to be sent
    int pageSize = 0;          // 0: not by pages
    std::string cookie{};
};

// What the controller says, byte for byte. Nothing fails: a client that has gone hears
// nothing.
class Talk {
  public:
    explicit Talk(int socket) : m_socket(socket) {}
    ~Talk();
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    void entry(int id, const std::string& dn, const std::vector<Attribute>& attributes);
    void reference(int id, const std::string& url);
    // The end of a search.
    void done(int id, int code = LDAP_SUCCESS, const std::string& text = {});
    void page(int id, const std::string& cookie);
    // The answer to a bind, or to another operation by its tag.
    void result(ber_tag_t tag, int id, int code, const std::string& text = {});
    void bytes(std::string_view bytes);
    // From here on under TLS.
    bool secure(gnutls_certificate_credentials_t credentials, const std::string& priorities);
    bool isSecure() const { return m_tls != nullptr; }
    int lastCode() const { return m_lastCode; }
    // One message; empty when no more will come.
    std::string read();

  private:
    bool receive(std::string& message, std::size_t size);

    const int m_socket;
    gnutls_session_t m_tls = nullptr;
    int m_lastCode = 0;  // of the results said
};

// A host of example.com with a service account: its password, "secret", is in the folder.
AdOptions serviceAccount(const vorn::test::TemporaryFolder& folder);

class ScriptedController {
  public:
    enum class Tls {
        ByRequest,
        FromTheStart,
        Silent  // says nothing at all
    };

    // priorities: of GnuTLS.
    explicit ScriptedController(Tls tls = Tls::ByRequest, std::string priorities = "NORMAL");
    ~ScriptedController();
    ScriptedController(const ScriptedController&) = delete;
    ScriptedController& operator=(const ScriptedController&) = delete;

    // Asked first about every message, by a connection's thread. False: it gets the usual
    // answer, which is that all binds are good, that TLS may begin and that searches find
    // the root DSE only.
    using Answer = std::function<bool(Asked& asked, Talk& talk)>;
    void answer(Answer answer);

    // Under the address that the certificate bears: libldap takes "localhost" for another name.
    Peer peer() const { return {"127.0.0.1", m_port}; }
    // The authority that has signed the certificate, as PEM.
    std::string authorityFile() const;

    // Everything that was asked.
    std::vector<Asked> asked() const;
    std::size_t count(Asked::Kind kind) const;
    // Holds a connection's thread until the controller ends, or its client goes.
    void hang(Talk& talk) const;

  private:
    void accept();
    void serve(int socket);
    void usualAnswer(const Asked& asked, Talk& talk) const;

    const Tls m_tls;
    const std::string m_priorities;
    vorn::test::TemporaryFolder m_folder;
    gnutls_certificate_credentials_t m_credentials = nullptr;
    vorn::Descriptor m_listener{-1};
    std::uint16_t m_port = 0;

    mutable std::mutex m_mutex;
    Answer m_answer;  // guarded by m_mutex, as all below
    std::vector<Asked> m_asked;
    std::vector<vorn::Descriptor> m_sockets;
    std::list<std::thread> m_threads;
    std::thread m_acceptor;
};

}  // namespace vexagent
