// SPDX-License-Identifier: Apache-2.0
// A client whose frames say more than they hold: texts, names and options that share
// their bytes. Whatever it builds, the directory is given no more text than a request
// may be long.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "agent/directory/fake_directory_testing.h"
#include "serve_request.h"
#include "vex/wire.h"

namespace {

using namespace vexagent;
namespace wire = vex::wire;
using Text = flatbuffers::Offset<flatbuffers::String>;

class CountingDirectory : public FakeDirectory {
  public:
    Result search(const Query& query, Batch&, std::unique_ptr<Cursor>&) override {
        count({&query.domain, &query.filter, &query.base}, query.view);
        return {};
    }
    Result fetch(const std::string& domain, const std::string& dn, const View& view, Object&) override {
        count({&domain, &dn}, view);
        return {};
    }
    Result lookup(const std::string& guid, const View& view, Object& object) override {
        m_lookedUp += guid.size();
        if (m_lookedUp > wire::kMaxRequestBytes || ++m_lookups > 1 + wire::kMaxLookupsAhead) abort();
        count({&guid}, view);
        object = {{"_dn", {guid}}};
        return {};
    }
    Verdict authenticate(const std::string& user, const std::string& password,
                         LoginOptions options) override {
        count({&user, &password}, {});
        return FakeDirectory::authenticate(user, password, options);
    }

  private:
    std::size_t m_lookedUp = 0;
    std::size_t m_lookups = 0;

    static void count(std::initializer_list<const std::string*> texts, const View& view) {
        std::size_t bytes = 0;
        for (const std::string* text : texts) bytes += text->size();
        for (const std::string& name : view.attributes) bytes += name.size();
        if (bytes > wire::kMaxRequestBytes || view.attributes.size() > wire::kMaxRequestedAttributes) abort();
    }
};

// What the fuzzer chooses.
class Choices {
  public:
    Choices(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    std::size_t upTo(std::size_t most) {
        std::size_t value = 0;
        for (int i = 0; i < 3 && m_at < m_size; ++i) value = value << 8 | m_data[m_at++];
        return value % (most + 1);
    }

  private:
    const std::uint8_t* const m_data;
    const std::size_t m_size;
    std::size_t m_at = 0;
};

class SharingRequest {
  public:
    explicit SharingRequest(Choices& choices) : m_choices(choices) {
        const std::size_t texts = 1 + choices.upTo(3);
        while (m_texts.size() < texts)
            m_texts.push_back(m_builder.CreateString(std::string(choices.upTo(600'000), 'x')));
    }

    Bytes finish() {
        const auto kind = static_cast<wire::Body>(1 + m_choices.upTo(7));
        const auto body = makeBody(kind);
        const auto option = wire::CreateOption(m_builder, 64, 1);
        const auto options = m_builder.CreateVector(
            std::vector<flatbuffers::Offset<wire::Option>>(m_choices.upTo(200), option));
        m_builder.Finish(wire::CreateRequest(m_builder, 1, options, kind, body), wire::kRequestIdentifier);
        return {m_builder.GetBufferPointer(), m_builder.GetBufferPointer() + m_builder.GetSize()};
    }

  private:
    Text text() { return m_texts[m_choices.upTo(m_texts.size() - 1)]; }

    flatbuffers::Offset<flatbuffers::Vector<Text>> names() {
        const std::size_t references = m_choices.upTo(200'000);
        return m_builder.CreateVector(std::vector<Text>(references, text()));
    }

    flatbuffers::Offset<void> makeBody(wire::Body kind) {
        const Text first = text();
        const Text second = text();
        const Text third = text();
        switch (kind) {
            case wire::Body::SearchOpen:
                return wire::CreateSearchOpen(m_builder, first, second, third, names(), 2).Union();
            case wire::Body::Fetch:
                return wire::CreateFetch(m_builder, first, second, names()).Union();
            case wire::Body::Lookup:
                return wire::CreateLookup(m_builder, first, names()).Union();
            case wire::Body::ChangePassword:
                return wire::CreateChangePassword(m_builder, first, second, first).Union();
            case wire::Body::Authenticate:
                return wire::CreateAuthenticate(m_builder, first, second).Union();
            default:
                return wire::CreateSearchNext(m_builder, 1).Union();
        }
    }

    flatbuffers::FlatBufferBuilder m_builder;
    Choices& m_choices;
    std::vector<Text> m_texts;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Choices choices(data, size);
    const Bytes frame = SharingRequest(choices).finish();
    if (frame.size() > wire::kMaxRequestBytes) return 0;
    CountingDirectory directory;
    serveRequest(directory, frame);
    return 0;
}
