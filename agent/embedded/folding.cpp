// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/folding.h"

extern "C" {
#include <ldb_module.h>
}
#include <locale.h>
#include <string.h>
#include <wctype.h>

#include <algorithm>

#include "agent/embedded/database.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr char32_t kNone = 0xFFFFFFFF;
constexpr char32_t kFirstOutsideAscii = 0x80;

bool isOutsideAscii(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
}

// How many bytes a sequence has, by its first byte; 0 for one that begins none.
std::size_t sequenceLength(unsigned char first) {
    if (first >= 0xC2 && first <= 0xDF) return 2;
    if (first >= 0xE0 && first <= 0xEF) return 3;
    if (first >= 0xF0 && first <= 0xF4) return 4;
    return 0;
}

// The character that a sequence of several bytes stands for; kNone for bytes that
// are no UTF-8 (RFC 3629), such as an overlong form. What is none for another reason, such
// as a surrogate, has no other case and stays as it is.
char32_t decode(std::string_view bytes) {
    static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    char32_t character = static_cast<unsigned char>(bytes[0]) & (0xFFU >> (bytes.size() + 1));
    for (const char c : bytes.substr(1)) {
        if ((c & 0xC0) != 0x80) return kNone;
        character = character << 6 | static_cast<char32_t>(c & 0x3F);
    }
    return character < kLeast[bytes.size()] ? kNone : character;
}

void encode(std::string& text, char32_t character) {
    const auto tail = [&](int shift) {
        text.push_back(static_cast<char>(0x80 | (character >> shift & 0x3F)));
    };
    if (character < 0x800) {
        text.push_back(static_cast<char>(0xC0 | character >> 6));
    } else if (character < 0x10000) {
        text.push_back(static_cast<char>(0xE0 | character >> 12));
        tail(6);
    } else {
        text.push_back(static_cast<char>(0xF0 | character >> 18));
        tail(12);
        tail(6);
    }
    tail(0);
}

// Made once and kept: threads may fold as long as the process lives.
locale_t unicode() {
    static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return locale;
}

// By way of the small letter, so that the two small sigmas and the letters that
// Unicode has twice, such as the Ohm sign, become one.
char32_t foldCharacter(char32_t character) {
    if (unicode() == nullptr) return character;
    const auto small = static_cast<char32_t>(::towlower_l(character, unicode()));
    const auto large = static_cast<char32_t>(::towupper_l(static_cast<wint_t>(small), unicode()));
    return small < kFirstOutsideAscii || large < kFirstOutsideAscii ? character : large;
}

// Null where there is no memory.
char* foldInto(void* pool, std::string_view text) {
    try {
        const std::string folded = foldCase(text);
        return talloc_strndup(pool, folded.data(), folded.size());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// The context folds by Unicode for the time. Nothing may be thrown through LDB, which
// compares the bytes of what cannot be folded: an outcome after that is none.
class UnicodeFolding {
  public:
    explicit UnicodeFolding(ldb_context* ldb) : m_ldb(ldb) { ldb_set_utf8_fns(m_ldb, this, fold); }
    ~UnicodeFolding() { ldb_set_utf8_default(m_ldb); }
    UnicodeFolding(const UnicodeFolding&) = delete;
    UnicodeFolding& operator=(const UnicodeFolding&) = delete;

    bool hasFailed() const { return m_failed; }

  private:
    static char* fold(void* self, void* pool, const char* text, std::size_t size) {
        char* folded = foldInto(pool, {text, ::strnlen(text, size)});
        if (folded == nullptr) static_cast<UnicodeFolding*>(self)->m_failed = true;
        return folded;
    }

    ldb_context* const m_ldb;
    bool m_failed = false;
};

bool isOutsideAscii(const ldb_val& value) {
    return isOutsideAscii(bytesOf(value));
}

bool holdsOutsideAscii(const ParseTree* assertion) {
    switch (assertion->operation) {
        case LDB_OP_EQUALITY:
            return isOutsideAscii(assertion->u.equality.value);
        case LDB_OP_GREATER:
        case LDB_OP_LESS:
        case LDB_OP_APPROX:
            return isOutsideAscii(assertion->u.comparison.value);
        case LDB_OP_SUBSTRING:
            for (ldb_val** piece = assertion->u.substring.chunks; *piece != nullptr; ++piece)
                if (isOutsideAscii(**piece)) return true;
            return false;
        default:
            return false;
    }
}

bool anyNeedsFolding(const ParseTree* tree) {
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
        case LDB_OP_OR:
            return std::any_of(list.elements, list.elements + list.num_elements, anyNeedsFolding);
        case LDB_OP_NOT:
            return anyNeedsFolding(tree->u.isnot.child);
        default:
            return needsFolding(tree);
    }
}

// Whoever has a matching value has a value. Below a NOT the assertion must select
// less rather than more, and nothing is what is less for sure.
Selection loosen(ParseTree* assertion, bool negated) {
    if (!needsFolding(assertion)) return Selection::Some;
    if (negated) return Selection::Nothing;
    const char* name = assertedAttribute(assertion);
    assertion->operation = LDB_OP_PRESENT;
    assertion->u.present.attr = name;
    return Selection::Some;
}

}  // namespace

std::string foldCase(std::string_view text) {
    std::string folded;
    folded.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(static_cast<unsigned char>(text[0]));
        const char32_t character =
            length == 0 || length > text.size() ? kNone : decode(text.substr(0, length));
        if (character == kNone) {
            const char c = text[0];
            folded.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
            text.remove_prefix(1);
        } else {
            encode(folded, foldCharacter(character));
            text.remove_prefix(length);
        }
    }
    return folded;
}

bool needsFolding(const ParseTree* assertion) {
    const char* name = assertedAttribute(assertion);
    return name != nullptr && ignoresCase(name) && holdsOutsideAscii(assertion);
}

Selection loosenFilter(void* pool, ParseTree*& tree) {
    if (!anyNeedsFolding(tree)) return Selection::Some;
    tree = ldb_parse_tree_copy_shallow(pool, tree);
    if (tree == nullptr) throw std::bad_alloc();
    return simplify(tree, false,
                    [](ParseTree*& assertion, bool negated) { return loosen(assertion, negated); });
}

bool matchesFolded(ldb_context* ldb, const ldb_message* message, const ParseTree* tree) {
    const Pool pool = newPool();
    // A DN keeps its folded form: one of its own leaves the message's as LDB made it.
    ldb_message own = *message;
    own.dn = ldb_dn_new(pool.get(), ldb, ldb_dn_get_linearized(message->dn));
    if (own.dn == nullptr) throw std::bad_alloc();
    const UnicodeFolding folding(ldb);
    bool matched = false;
    const int code = ldb_match_msg_error(ldb, &own, tree, nullptr, LDB_SCOPE_SUBTREE, &matched);
    if (folding.hasFailed()) throw std::bad_alloc();
    return code == LDB_SUCCESS && matched;
}

}  // namespace vexagent
