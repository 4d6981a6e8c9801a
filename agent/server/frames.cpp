// SPDX-License-Identifier: Apache-2.0
#include "agent/server/frames.h"

#include <algorithm>
#include <limits>

#include "vex/wire.h"

namespace vexagent {
namespace {

namespace wire = vex::wire;
using Builder = flatbuffers::FlatBufferBuilder;

flatbuffers::Offset<flatbuffers::String> createText(Builder& builder, const std::string& text) {
    return builder.CreateString(text.data(), text.size());
}

// Makes buffers of their own of objects, aligned within the response. What it works with
// is used for one after the other.
class Packer {
  public:
    explicit Packer(Builder& builder) : m_builder(builder) {}

    flatbuffers::Offset<wire::PackedObject> pack(const Object& object) {
        m_scratch.Clear();
        m_attributes.clear();
        for (const Attribute& attribute : object) m_attributes.push_back(pack(attribute));
        m_scratch.Finish(wire::CreateObject(m_scratch, m_scratch.CreateVector(m_attributes)));
        m_builder.ForceVectorAlignment(m_scratch.GetSize(), 1, sizeof(flatbuffers::largest_scalar_t));
        return wire::CreatePackedObject(
            m_builder, m_builder.CreateVector(m_scratch.GetBufferPointer(), m_scratch.GetSize()));
    }

  private:
    flatbuffers::Offset<wire::Attribute> pack(const Attribute& attribute) {
        m_values.clear();
        for (const std::string& value : attribute.values) m_values.push_back(createText(m_scratch, value));
        const auto values = m_scratch.CreateVector(m_values);
        return wire::CreateAttribute(m_scratch, createText(m_scratch, attribute.name), values);
    }

    Builder& m_builder;
    Builder m_scratch;
    std::vector<flatbuffers::Offset<flatbuffers::String>> m_values;
    std::vector<flatbuffers::Offset<wire::Attribute>> m_attributes;
};

void finish(Builder& builder, std::uint64_t id, const Answer& answer) {
    Packer packer(builder);
    std::vector<flatbuffers::Offset<wire::PackedObject>> objects;
    objects.reserve(answer.objects.size());
    for (const Object& object : answer.objects) objects.push_back(packer.pack(object));
    std::vector<flatbuffers::Offset<flatbuffers::String>> names;
    names.reserve(answer.names.size());
    for (const std::string& name : answer.names) names.push_back(createText(builder, name));

    const auto objectList = builder.CreateVector(objects);
    const auto nameList = builder.CreateVector(names);
    flatbuffers::Offset<wire::Error> error = 0;
    if (answer.result.errSystem != 0) {
        const auto text = createText(builder, answer.result.errText);
        error = wire::CreateError(builder, answer.result.errSystem, answer.result.errCode, text);
    }
    constexpr std::uint64_t kMost = std::numeric_limits<std::int32_t>::max();
    wire::ResponseBuilder response(builder);
    response.add_id(id);
    response.add_code(answer.result.code);
    if (!error.IsNull()) response.add_error(error);
    if (!answer.objects.empty()) response.add_objects(objectList);
    if (!answer.names.empty()) response.add_names(nameList);
    response.add_search(answer.search);
    response.add_total(static_cast<std::int32_t>(std::min(answer.total, kMost)));
    response.add_condition(answer.condition);
    builder.Finish(response.Finish(), wire::kResponseIdentifier);
}

// A buffer larger than FlatBuffers can address must never be begun.
bool mayFit(const Answer& answer) {
    std::size_t bytes = 0;
    for (const Object& object : answer.objects)
        for (const Attribute& attribute : object)
            for (const std::string& value : attribute.values) bytes += value.size() + 8;
    for (const std::string& name : answer.names) bytes += name.size() + 8;
    return bytes <= wire::kMaxResponseBytes;
}

Bytes frameOf(const Builder& builder) {
    const std::uint32_t size = builder.GetSize();
    Bytes frame(wire::kLengthBytes + size);
    for (std::size_t i = 0; i < wire::kLengthBytes; ++i) frame[i] = static_cast<std::uint8_t>(size >> 8 * i);
    std::copy_n(builder.GetBufferPointer(), size, frame.begin() + wire::kLengthBytes);
    return frame;
}

// What a request's texts come to. None of them is read.
class Texts {
  public:
    using Text = flatbuffers::String;
    using Names = flatbuffers::Vector<flatbuffers::Offset<Text>>;

    void add(const Text* text) {
        if (text != nullptr) m_bytes += text->size();
    }

    void addSearch(const wire::SearchOpen& search) {
        for (const Text* text : {search.domain(), search.filter(), search.base()}) add(text);
        addNames(search.attributes());
    }

    void addFetch(const wire::Fetch& fetch) {
        for (const Text* text : {fetch.domain(), fetch.dn()}) add(text);
        addNames(fetch.attributes());
    }

    void addLookup(const wire::Lookup& lookup) {
        add(lookup.guid());
        m_tooManyGuids = !addAll(lookup.more(), wire::kMaxLookupsAhead);
    }

    void addLogin(const wire::Authenticate& login) {
        for (const Text* text : {login.user(), login.password()}) add(text);
    }

    void addChange(const wire::ChangePassword& change) {
        for (const Text* text : {change.user(), change.old_password(), change.new_password()}) add(text);
    }

    bool tooManyNames() const { return m_tooManyNames; }
    bool tooManyGuids() const { return m_tooManyGuids; }
    std::size_t bytes() const { return m_bytes; }

  private:
    void addNames(const Names* names) { m_tooManyNames = !addAll(names, wire::kMaxRequestedAttributes); }

    // False when there are more than the most.
    bool addAll(const Names* texts, std::size_t most) {
        if (texts == nullptr) return true;
        if (texts->size() > most) return false;
        for (const Text* text : *texts) add(text);
        return true;
    }

    std::size_t m_bytes = 0;
    bool m_tooManyNames = false;
    bool m_tooManyGuids = false;
};

}  // namespace

const wire::Request* readRequest(std::span<const std::uint8_t> frame) {
    flatbuffers::Verifier verifier(frame.data(), frame.size(), wire::kMaxDepth, wire::kMaxTables);
    if (!verifier.VerifyBuffer<wire::Request>(wire::kRequestIdentifier)) return nullptr;
    return flatbuffers::GetRoot<wire::Request>(frame.data());
}

const char* whyRefused(const wire::Request& request) {
    Texts texts;
    if (const auto* search = request.body_as_SearchOpen()) texts.addSearch(*search);
    if (const auto* fetch = request.body_as_Fetch()) texts.addFetch(*fetch);
    if (const auto* lookup = request.body_as_Lookup()) texts.addLookup(*lookup);
    if (const auto* login = request.body_as_Authenticate()) texts.addLogin(*login);
    if (const auto* change = request.body_as_ChangePassword()) texts.addChange(*change);
    if (texts.tooManyNames()) return "too many attributes asked for";
    if (texts.tooManyGuids()) return "too many objects looked up at once";
    if (texts.bytes() > wire::kMaxRequestBytes) return "the texts of the request are too long";
    const bool tooManyOptions = request.options() != nullptr && request.options()->size() > wire::kMaxOptions;
    return tooManyOptions ? "too many options" : nullptr;
}

Bytes writeResponse(std::uint64_t id, const Answer& answer) {
    if (mayFit(answer)) {
        Builder builder(4096);
        finish(builder, id, answer);
        if (builder.GetSize() <= wire::kMaxResponseBytes) return frameOf(builder);
    }
    Answer tooLarge;
    tooLarge.result = Result::agent(VEX_DIRECTORY_ERROR, "the answer is larger than a response may be");
    Builder builder(1024);
    finish(builder, id, tooLarge);
    return frameOf(builder);
}

std::uint64_t searchIn(const Bytes& response) {
    if (response.size() <= wire::kLengthBytes) return 0;
    return flatbuffers::GetRoot<wire::Response>(response.data() + wire::kLengthBytes)->search();
}

}  // namespace vexagent
