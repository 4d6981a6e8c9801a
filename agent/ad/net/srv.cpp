// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/srv.h"

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <netdb.h>
#include <algorithm>
#include <array>
#include <cerrno>

#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr int kSrvHeader = 6;  // priority, weight and port
constexpr std::size_t kMostRecords = 256;
constexpr std::size_t kAnswerBytes = 65'536;

// The resolver's state, which belongs to one thread for one query.
class Resolver {
  public:
    explicit Resolver(const sockaddr_in* nameServer) : m_ready(::res_ninit(&m_state) == 0) {
        // A query is over in time: two rounds of a second for each server.
        m_state.retrans = 1;
        m_state.retry = 2;
        if (nameServer == nullptr) return;
        m_state.nsaddr_list[0] = *nameServer;
        m_state.nscount = 1;
    }
    ~Resolver() {
        if (m_ready) ::res_nclose(&m_state);
    }
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    int query(const std::string& name, std::vector<unsigned char>& answer) {
        if (!m_ready) return -1;
        return ::res_nquery(&m_state, name.c_str(), ns_c_in, ns_t_srv, answer.data(),
                            static_cast<int>(answer.size()));
    }
    int error() const { return m_state.res_h_errno; }

  private:
    struct __res_state m_state {};
    const bool m_ready;
};

}  // namespace

std::optional<std::vector<SrvRecord>> parseSrvAnswer(const unsigned char* bytes, int size) {
    std::vector<SrvRecord> records;
    ns_msg message;
    if (ns_initparse(bytes, size, &message) != 0) return std::nullopt;
    for (int i = 0; i < ns_msg_count(message, ns_s_an) && records.size() < kMostRecords; ++i) {
        ns_rr record;
        if (ns_parserr(&message, ns_s_an, i, &record) != 0) return std::nullopt;
        if (ns_rr_type(record) != ns_t_srv) continue;
        const unsigned char* data = ns_rr_rdata(record);
        if (ns_rr_rdlen(record) <= kSrvHeader) return std::nullopt;
        char target[NS_MAXDNAME] = {};
        if (ns_name_uncompress(bytes, bytes + size, data + kSrvHeader, target, sizeof target) < 0)
            return std::nullopt;
        if (*target == '\0' || std::string_view(target) == ".") continue;
        records.push_back({static_cast<std::uint16_t>(ns_get16(data)),
                           static_cast<std::uint16_t>(ns_get16(data + 2)),
                           static_cast<std::uint16_t>(ns_get16(data + 4)), target});
    }
    return records;
}

std::vector<SrvRecord> orderRecords(std::vector<SrvRecord> records, const std::function<double()>& random) {
    // Records without weight go first, so that they are drawn at times.
    std::stable_sort(records.begin(), records.end(), [](const SrvRecord& a, const SrvRecord& b) {
        if (a.priority != b.priority) return a.priority < b.priority;
        return a.weight == 0 && b.weight != 0;
    });
    for (auto first = records.begin(); first != records.end(); ++first) {
        std::uint64_t sum = 0;
        auto end = first;
        for (; end != records.end() && end->priority == first->priority; ++end) sum += end->weight;
        const auto drawn = static_cast<std::uint64_t>(random() * static_cast<double>(sum + 1));
        std::uint64_t running = 0;
        const auto chosen = std::find_if(first, end, [&](const SrvRecord& record) {
            running += record.weight;
            return running >= drawn;
        });
        std::rotate(first, chosen, chosen + 1);
    }
    return records;
}

bool liesBelow(std::string_view host, std::string_view domain) {
    if (domain.empty() || host.size() < domain.size()) return false;
    const std::size_t rest = host.size() - domain.size();
    return vorn::equalsIgnoreCase(host.substr(rest), domain) && (rest == 0 || host[rest - 1] == '.');
}

vorn::Expected<std::vector<SrvRecord>, std::string> querySrv(const std::string& name,
                                                             const sockaddr_in* nameServer) {
    Resolver resolver(nameServer);
    std::vector<unsigned char> answer(kAnswerBytes);
    const int size = resolver.query(name, answer);
    if (size < 0) return vorn::unexpected(name + ": " + ::hstrerror(resolver.error()));
    auto records = parseSrvAnswer(answer.data(), size);
    if (!records) return vorn::unexpected(name + ": the name server's answer cannot be read");
    if (records->empty()) return vorn::unexpected(name + ": no such service");
    return std::move(*records);
}

}  // namespace vexagent
