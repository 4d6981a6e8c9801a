// SPDX-License-Identifier: Apache-2.0
// What the agent client interface hands out, with an owner from its birth on.
#pragma once

#include <memory>

#include "vex/vex.h"

namespace vex {

template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T* handle) const {
        release(handle);
    }
};

using UniqueString = std::unique_ptr<char, Releaser<vexFreeString>>;
using UniqueObject = std::unique_ptr<vexObject, Releaser<vexFreeObject>>;
using UniqueStringSet = std::unique_ptr<vexStringSet, Releaser<vexFreeStringSet>>;
using UniqueSession = std::unique_ptr<vexSession, Releaser<vexSessionClose>>;

// An attribute's values.
class BlobList {
  public:
    BlobList() = default;
    ~BlobList() { vexFreeAttributeBlobList(m_values, m_count); }
    BlobList(const BlobList&) = delete;
    BlobList& operator=(const BlobList&) = delete;

    // Reads an attribute's values into an empty list.
    vexCode read(vexSession* session, const vexObject* object, const char* name) {
        return vexGetAttributeBlobList(session, object, name, &m_values, &m_count);
    }

    const vexBlob* values() const { return m_values; }
    int count() const { return m_count; }

  private:
    vexBlob* m_values = nullptr;
    int m_count = 0;
};

// Reads an attribute's first value as text.
inline vexCode readAttribute(vexSession* session, const vexObject* object, const char* name,
                             UniqueString* value) {
    char* text = nullptr;
    const vexCode code = vexGetAttributeStr(session, object, name, &text);
    if (code == VEX_OK) value->reset(text);
    return code;
}

}  // namespace vex
