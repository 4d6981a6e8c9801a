// SPDX-License-Identifier: Apache-2.0
// A directory in memory for tests: a search's filter says what it finds.
#pragma once

#include <atomic>
#include <charconv>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>

#include "agent/directory/directory.h"
#include "agent/directory/passwords.h"

namespace vexagent {

// "N" finds N objects, one to a batch; "quick" nothing; "large" an object of 16
// MiB; "fail", "throw", "wait", "huge" and "broken" (later on) do what they say. The password "right" is
// everybody's.
class FakeDirectory : public Directory {
  public:
    bool healthy = true;
    std::atomic<int> searches = 0;
    std::atomic<int> fetches = 0;
    std::mutex gate;                // that "wait" waits for
    std::string thrown = "thrown";  // by "throw"
    std::atomic<int> waiting = 0;
    int logins = 0;
    LoginOptions loginOptions;    // of the last login
    std::string changedPassword;  // whose, from what and to what, of the last change

    Query asked;         // of the last search
    std::string within;  // what domain, of the last fetch
    View viewed;         // of the last fetch or look-up

    bool looksAhead = true;
    std::function<void()> onLookup;
    std::size_t lookupBytes = 0;  // that each object is larger by

    bool isQuick(int, const std::string& filter) const override { return filter == "quick"; }

    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override {
        ++searches;
        if (query.filter == "wait") {
            ++waiting;
            const std::lock_guard wait(gate);
        } else if (query.filter == "record" || query.filter.starts_with("(")) {
            asked = query;
        }
        if (query.filter == "fail") return Result::ldap(VEX_BAD_FILTER, -7, "bad search filter");
        if (query.filter == "throw") throw std::runtime_error(thrown);
        if (query.filter == "broken") {
            first.objects.push_back({{"_dn", {"object 1"}}});
            rest = std::make_unique<Broken>();
            return {};
        }
        if (query.filter == "huge") {
            first.objects.push_back({{"data", {std::string(std::size_t{65} << 20, 'x')}}});
            rest = std::make_unique<Counter>(2);
            return {};
        }
        if (query.filter == "large") {
            first.objects.push_back({{"data", {std::string(std::size_t{16} << 20, 'x')}}});
            return {};
        }
        int count = 0;
        std::from_chars(query.filter.data(), query.filter.data() + query.filter.size(), count);
        if (count <= 0) return {};
        auto cursor = std::make_unique<Counter>(count);
        cursor->next(first);
        if (!cursor->atEnd()) rest = std::move(cursor);
        return {};
    }

    Result fetch(const std::string& domain, const std::string& dn, const View& view,
                 Object& object) override {
        ++fetches;
        within = domain;
        viewed = view;
        if (dn != "there") return Result::ldap(VEX_NO_SUCH_OBJECT, 32, "no object has this DN");
        object = {{"_dn", {dn}}};
        return {};
    }

    Result lookup(const std::string& guid, const View& view, Object& object) override {
        if (onLookup) onLookup();
        const Result result = fetch("", guid, view, object);
        if (result.ok() && lookupBytes > 0) object.push_back({"data", {std::string(lookupBytes, 'x')}});
        return result;
    }

    Verdict authenticate(const std::string&, const std::string& password, LoginOptions options) override {
        ++logins;
        loginOptions = options;
        if (const auto accepted = acceptedByHash(password, {"zxPsFjmiXgExk"})) return *accepted;
        return Result::ldap(VEX_WRONG_PASSWORD, 49, "wrong password");
    }

    // No password is as good as "right".
    Result changePassword(const std::string& user, const std::string& oldPassword,
                          const std::string& newPassword) override {
        changedPassword = user + " " + oldPassword + " " + newPassword;
        if (oldPassword != "right") return Result::ldap(VEX_WRONG_PASSWORD, 49, "wrong password");
        return newPassword == "bad" ? Result::ldap(VEX_REFUSED, 19, "too short") : Result();
    }

    void lookupAhead(const std::vector<std::string>& guids, const View& view, const Take& take) override {
        for (const std::string& guid : guids) {
            Object object;
            if (!looksAhead || (lookup(guid, view, object).ok() && !take(std::move(object)))) return;
        }
    }

    Result supportedAttributes(std::vector<std::string>& names) override {
        names = {"cn", "member"};
        return {};
    }

    Result health() override {
        return healthy ? Result() : Result::agent(VEX_UNAVAILABLE, "away").because("/where");
    }

  private:
    struct Broken : Cursor {
        Result next(Batch&) override { return Result::agent(VEX_UNAVAILABLE, "went away"); }
        bool atEnd() const override { return false; }
    };

    class Counter : public Cursor {
      public:
        explicit Counter(int count) : m_count(count) {}
        Result next(Batch& batch) override {
            batch.objects.push_back({{"_dn", {"object " + std::to_string(++m_at)}}});
            batch.total = static_cast<std::uint64_t>(m_count);
            return {};
        }
        bool atEnd() const override { return m_at >= m_count; }

      private:
        const int m_count;
        int m_at = 0;
    };
};

}  // namespace vexagent
