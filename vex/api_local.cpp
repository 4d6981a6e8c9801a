// SPDX-License-Identifier: Apache-2.0
// The functions of vex/vex.h that need no agent: objects, names of codes, and
// the free calls.
#include <algorithm>
#include <climits>

#include "vex/edge.h"
#include "vex/object.h"
#include "vorn/strings.h"

using namespace vex;

namespace {

// A list of values: the share of the object whose bytes they are comes first.
struct BlobListHead {
    ObjectRef content;
};
static_assert(sizeof(BlobListHead) % alignof(vexBlob) == 0);

vexBlob* newBlobList(const ObjectRef& content, std::size_t count) {
    void* memory = ::operator new(sizeof(BlobListHead) + count * sizeof(vexBlob));
    return reinterpret_cast<vexBlob*>(new (memory) BlobListHead{content} + 1);
}

const wire::Attribute* find(const vexObject* object, const char* name) {
    return findAttribute(*object->content, name);
}

// The first value's text, or null.
const flatbuffers::String* firstValue(const vexObject* object, const char* name) {
    const wire::Attribute* attribute = find(object, name);
    return attribute && attribute->values()->size() > 0 ? attribute->values()->Get(0) : nullptr;
}

bool isTrue(std::string_view text) {
    if (text == "TRUE" || text == "true") return true;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    const bool isNumber = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    return isNumber && text.find_first_not_of('0') != text.npos;
}

vexCode giveName(const vexObject* object, unsigned place, unsigned* cursor, char** name) {
    const auto& attributes = *object->content->attributes();
    if (place >= attributes.size()) return VEX_NO_SUCH_ATTRIBUTE;
    *name = newString(view(*attributes.Get(place)->name()));
    *cursor = place;
    return VEX_OK;
}

const char* nameOf(vexCode code) {
    switch (code) {
        case VEX_OK:
            return "success";
        case VEX_INVALID_ARGUMENT:
            return "invalid argument";
        case VEX_NO_MEMORY:
            return "no memory";
        case VEX_NOT_SUPPORTED:
            return "not supported";
        case VEX_BROKEN_SESSION:
            return "broken session";
        case VEX_END_OF_RESULTS:
            return "end of results";
        case VEX_DIRECTORY_ERROR:
            return "directory error";
        case VEX_NO_SUCH_OBJECT:
            return "no such object";
        case VEX_NO_SUCH_ATTRIBUTE:
            return "no such attribute";
        case VEX_BAD_FILTER:
            return "bad filter";
        case VEX_UNAVAILABLE:
            return "unavailable";
        case VEX_NO_SUCH_USER:
            return "no such user";
        case VEX_WRONG_PASSWORD:
            return "wrong password";
        case VEX_ACCOUNT_REFUSED:
            return "account refused";
        case VEX_REFUSED:
            return "refused";
        case VEX_BROKEN_HANDLE:
            return "broken handle";
        case VEX_OBJECT_GONE:
            return "object gone";
        default:
            return "unknown code";
    }
}

const char* nameOfSystem(int errSystem) {
    switch (errSystem) {
        case VEX_ERR_AGENT:
            return "agent";
        case VEX_ERR_LDAP:
            return "LDAP";
        case VEX_ERR_KERBEROS:
            return "Kerberos";
        case VEX_ERR_SYSTEM:
            return "system";
        default:
            return "unknown system";
    }
}

}  // namespace

vexCode vexGetVexCodeStr(vexCode code, const char** text) {
    if (!text) return VEX_INVALID_ARGUMENT;
    *text = nameOf(code);
    return VEX_OK;
}

vexCode vexGetErrSystemStr(int errSystem, const char** text) {
    if (!text) return VEX_INVALID_ARGUMENT;
    *text = nameOfSystem(errSystem);
    return VEX_OK;
}

vexCode vexGetAttributeStr(vexSession*, const vexObject* object, const char* name, char** value) {
    return guarded([&]() -> vexCode {
        if (!object || !name || !value) return VEX_INVALID_ARGUMENT;
        const flatbuffers::String* first = firstValue(object, name);
        if (!first) return VEX_NO_SUCH_ATTRIBUTE;
        *value = newString(view(*first));
        return VEX_OK;
    });
}

vexCode vexGetAttributeBool(vexSession*, const vexObject* object, const char* name, int* value) {
    return guarded([&]() -> vexCode {
        if (!object || !name || !value) return VEX_INVALID_ARGUMENT;
        const flatbuffers::String* first = firstValue(object, name);
        if (!first) return VEX_NO_SUCH_ATTRIBUTE;
        *value = isTrue(view(*first)) ? 1 : 0;
        return VEX_OK;
    });
}

vexCode vexGetAttributeBlobList(vexSession*, const vexObject* object, const char* name, vexBlob** values,
                                int* count) {
    return guarded([&]() -> vexCode {
        if (!object || !name || !values || !count) return VEX_INVALID_ARGUMENT;
        const wire::Attribute* attribute = find(object, name);
        if (!attribute) return VEX_NO_SUCH_ATTRIBUTE;
        vexBlob* list = newBlobList(object->content, attribute->values()->size());
        *values = list;
        *count = static_cast<int>(attribute->values()->size());
        for (const flatbuffers::String* value : *attribute->values())
            *list++ = {value->size(), reinterpret_cast<const unsigned char*>(value->c_str())};
        return VEX_OK;
    });
}

vexCode vexGetFirstAttribute(vexSession*, const vexObject* object, unsigned* cursor, char** name) {
    return guarded([&]() -> vexCode {
        if (!object || !cursor || !name) return VEX_INVALID_ARGUMENT;
        return giveName(object, 0, cursor, name);
    });
}

vexCode vexGetNextAttribute(vexSession*, const vexObject* object, unsigned* cursor, char** name) {
    return guarded([&]() -> vexCode {
        if (!object || !cursor || !name) return VEX_INVALID_ARGUMENT;
        if (*cursor == UINT_MAX) return VEX_NO_SUCH_ATTRIBUTE;
        return giveName(object, *cursor + 1, cursor, name);
    });
}

vexObject* ChmCloneObject(const vexObject* object) {
    return object ? new (std::nothrow) vexObject{object->content} : nullptr;
}

size_t vexGetObjectSize(const vexObject* object) {
    return object ? object->content.memory() : 0;
}

void vexFreeString(char* text) {
    std::free(text);
}

void vexFreeAttributeBlobList(vexBlob* values, int) {
    if (!values) return;
    auto* head = reinterpret_cast<BlobListHead*>(values) - 1;
    head->~BlobListHead();
    ::operator delete(head);
}

void vexFreeStringSet(vexStringSet* names) {
    ::operator delete(names);
}

void vexFreeObject(vexObject* object) {
    delete object;
}
