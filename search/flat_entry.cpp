// SPDX-License-Identifier: Apache-2.0
#include "search/flat_entry.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "backend/base/slapd.h"

namespace {

// Bytes of text, each with the NUL that slapd expects behind it.
std::size_t textSize(const berval& text) {
    return text.bv_val == nullptr ? 0 : text.bv_len + 1;
}

bool hasOwnNormalValues(const Attribute& attribute) {
    return attribute.a_nvals != nullptr && attribute.a_nvals != attribute.a_vals;
}

// A block is one of words, which are aligned as records want it.
using Word = std::uint64_t;
static_assert(alignof(Word) >= alignof(Entry));

// A block's layout: records first, which are all aligned alike, and text behind them.
struct Sizes {
    std::size_t records = sizeof(Entry);
    std::size_t text = 0;

    std::size_t words() const { return (records + text + sizeof(Word) - 1) / sizeof(Word); }

    explicit Sizes(const Entry& entry) : text(textSize(entry.e_name) + textSize(entry.e_nname)) {
        for (const Attribute* one = entry.e_attrs; one != nullptr; one = one->a_next) {
            records += sizeof(Attribute);
            add(one->a_vals, one->a_numvals);
            if (hasOwnNormalValues(*one)) add(one->a_nvals, one->a_numvals);
        }
    }

  private:
    void add(const berval* values, unsigned count) {
        records += (count + 1) * sizeof(berval);
        for (unsigned i = 0; i < count; ++i) text += textSize(values[i]);
    }
};

class Copier {
  public:
    Copier(std::byte* block, const Sizes& sizes) : m_record(block), m_text(block + sizes.records) {}

    Entry* entry(const Entry& original) {
        Entry* copy = record(original);
        copy->e_name = text(original.e_name);
        copy->e_nname = text(original.e_nname);
        copy->e_bv = {0, nullptr};
        copy->e_private = nullptr;
        Attribute** link = &copy->e_attrs;
        for (const Attribute* one = original.e_attrs; one != nullptr; one = one->a_next) {
            *link = attribute(*one);
            link = &(*link)->a_next;
        }
        return copy;
    }

  private:
    Attribute* attribute(const Attribute& original) {
        Attribute* copy = record(original);
        copy->a_next = nullptr;
        copy->a_vals = values(original.a_vals, original.a_numvals);
        copy->a_nvals =
            hasOwnNormalValues(original) ? values(original.a_nvals, original.a_numvals) : copy->a_vals;
        return copy;
    }

    // With the empty record that ends them.
    berval* values(const berval* originals, unsigned count) {
        berval* first = nullptr;
        for (unsigned i = 0; i <= count; ++i) {
            berval* copy = record(i < count ? text(originals[i]) : berval{0, nullptr});
            if (first == nullptr) first = copy;
        }
        return first;
    }

    berval text(const berval& original) {
        if (original.bv_val == nullptr) return {0, nullptr};
        auto* copy = reinterpret_cast<char*>(m_text);
        std::memcpy(copy, original.bv_val, original.bv_len);
        copy[original.bv_len] = '\0';
        m_text += original.bv_len + 1;
        return {original.bv_len, copy};
    }

    template <typename Record>
    Record* record(const Record& original) {
        static_assert(sizeof(Record) % alignof(Entry) == 0);
        auto* copy = new (m_record) Record(original);
        m_record += sizeof(Record);
        return copy;
    }

    std::byte* m_record;
    std::byte* m_text;
};

}  // namespace

SharedEntry flatCopy(const Entry& entry) {
    const Sizes sizes(entry);
    const auto block = std::make_shared_for_overwrite<Word[]>(sizes.words());
    return {block, Copier(reinterpret_cast<std::byte*>(block.get()), sizes).entry(entry)};
}

std::size_t flatSize(const Entry& entry) {
    return Sizes(entry).words() * sizeof(Word);
}
