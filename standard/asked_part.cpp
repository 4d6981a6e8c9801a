// SPDX-License-Identifier: Apache-2.0
#include "standard/asked_part.h"

#include "standard/onlookers.h"

namespace standard {
namespace {

// Operational attributes may be made while an entry is sent, of others that it has.
bool namesOperational(const AttributeName* names) {
    for (; names->an_name.bv_val != nullptr; ++names)
        if (names->an_desc != nullptr && is_at_operational(names->an_desc->ad_type) != 0) return true;
    return false;
}

bool isAll(const Operation* op) {
    if (op->ors_attrs == nullptr) return true;
    const slap_mask_t groups = slap_attr_flags(op->ors_attrs);
    return SLAP_USERATTRS(groups) || SLAP_OPATTRS(groups) || namesOperational(op->ors_attrs) ||
           lookInside(op);
}

}  // namespace

bool AskedPart::isWhole() {
    if (m_state == State::First) {
        m_state = State::Second;
        return true;
    }
    if (m_state == State::Second) m_state = isAll(m_op) ? State::Whole : State::Parts;
    return m_state == State::Whole;
}

Entry* AskedPart::of(Entry* entry) {
    if (isWhole()) return entry;
    m_attributes.clear();
    m_next = 0;
    for (const Attribute* one = entry->e_attrs; one != nullptr; one = one->a_next)
        if (isAsked(one->a_desc)) m_attributes.push_back(*one);
    Attribute* next = nullptr;
    for (auto one = m_attributes.rbegin(); one != m_attributes.rend(); ++one) {
        one->a_next = next;
        next = &*one;
    }
    m_part = *entry;
    m_part.e_attrs = next;
    return &m_part;
}

// Not every entry has all that others have: behind the expected place first.
bool AskedPart::lookUp(AttributeDescription* description) {
    for (std::size_t tried = 0; tried < m_known.size(); ++tried) {
        const std::size_t place = (m_next + tried) % m_known.size();
        if (m_known[place].description != description) continue;
        m_next = place + 1;
        return m_known[place].asked;
    }
    m_known.push_back({description, ad_inlist(description, m_op->ors_attrs) != 0});
    m_next = m_known.size();
    return m_known.back().asked;
}

}  // namespace standard
