// SPDX-License-Identifier: Apache-2.0
// Reading objects.
#include "vex/object.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "vex/handles.h"
#include "vex/scripted_agent_testing.h"

namespace vextest {
namespace {

using testing::ElementsAre;

std::span<const std::uint8_t> span(const std::string& bytes) {
    return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

vexObject* newObject(const AttributeList& attributes) {
    const std::string bytes = packed(attributes);
    EXPECT_TRUE(vex::isSoundObject(span(bytes)));
    return new vexObject{vex::ObjectRef::copyOf(span(bytes))};
}

AttributeList personWith(const std::string& name, const std::vector<std::string>& values) {
    AttributeList attributes = person("ann");
    attributes.push_back({name, values});
    return attributes;
}

struct Object : testing::Test {
    vex::UniqueObject object{newObject(personWith("mail", {"a@x", std::string("b\0c", 3), ""}))};
};

TEST_F(Object, NamesAreComparedWithoutCase) {
    for (const char* name : {"sAMAccountName", "SAMACCOUNTNAME", "samaccountname"}) {
        char* text = nullptr;
        ASSERT_EQ(vexGetAttributeStr(nullptr, object.get(), name, &text), VEX_OK) << name;
        EXPECT_STREQ(text, "ann");
        vexFreeString(text);
    }
    char* text = nullptr;
    for (const char* name : {"sAMAccountNam", "sAMAccountNames", "", "_d", "cn "})
        EXPECT_EQ(vexGetAttributeStr(nullptr, object.get(), name, &text), VEX_NO_SUCH_ATTRIBUTE) << name;
    EXPECT_EQ(text, nullptr);
}

TEST_F(Object, ValuesKeepOrderLengthAndAFollowingNul) {
    vex::BlobList list;
    ASSERT_EQ(list.read(nullptr, object.get(), "MAIL"), VEX_OK);
    ASSERT_EQ(list.count(), 3);
    std::vector<std::string> values;
    for (int i = 0; i < list.count(); ++i) {
        const vexBlob& value = list.values()[i];
        values.emplace_back(reinterpret_cast<const char*>(value.data), value.length);
        EXPECT_EQ(value.data[value.length], 0);
    }
    EXPECT_THAT(values, ElementsAre("a@x", std::string("b\0c", 3), ""));
}

TEST_F(Object, AListOutlivesItsObjectAndSharesItsBytes) {
    vexBlob *first = nullptr, *second = nullptr;
    int count = 0;
    ASSERT_EQ(vexGetAttributeBlobList(nullptr, object.get(), "mail", &first, &count), VEX_OK);
    ASSERT_EQ(vexGetAttributeBlobList(nullptr, object.get(), "mail", &second, &count), VEX_OK);
    EXPECT_EQ(first[0].data, second[0].data) << "no bytes are copied";
    object.reset();
    vexFreeAttributeBlobList(first, count);
    EXPECT_STREQ(reinterpret_cast<const char*>(second[0].data), "a@x");
    vexFreeAttributeBlobList(second, count);
}

TEST_F(Object, AnAttributeWithoutValuesHasAnEmptyListAndNoFirstValue) {
    object.reset(newObject(personWith("empty", {})));
    vexBlob* values = nullptr;
    int count = -1, truth = -1;
    char* text = nullptr;
    ASSERT_EQ(vexGetAttributeBlobList(nullptr, object.get(), "empty", &values, &count), VEX_OK);
    EXPECT_EQ(count, 0);
    vexFreeAttributeBlobList(values, count);
    EXPECT_EQ(vexGetAttributeStr(nullptr, object.get(), "empty", &text), VEX_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(vexGetAttributeBool(nullptr, object.get(), "empty", &truth), VEX_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(truth, -1);
}

TEST_F(Object, TheWalkFollowsTheObjectsOwnOrder) {
    std::vector<std::string> names;
    unsigned cursor = 99;
    char* name = nullptr;
    vexCode code = vexGetFirstAttribute(nullptr, object.get(), &cursor, &name);
    while (code == VEX_OK) {
        names.push_back(name);
        vexFreeString(name);
        code = vexGetNextAttribute(nullptr, object.get(), &cursor, &name);
    }
    EXPECT_EQ(code, VEX_NO_SUCH_ATTRIBUTE);
    EXPECT_THAT(names, ElementsAre("_dn", "_GUID", "_objectCategory", "cn", "sAMAccountName", "mail"));
    EXPECT_EQ(vexGetNextAttribute(nullptr, object.get(), &cursor, &name), VEX_NO_SUCH_ATTRIBUTE)
        << "the end stays the end";
    cursor = ~0u;
    EXPECT_EQ(vexGetNextAttribute(nullptr, object.get(), &cursor, &name), VEX_NO_SUCH_ATTRIBUTE);
}

TEST_F(Object, TruthValues) {
    const struct {
        const char* text;
        int truth;
    } cases[] = {{"TRUE", 1},  {"true", 1}, {"1", 1},    {"2", 1},
                 {"-1", 1},    {"+7", 1},   {"0001", 1}, {"99999999999999999999", 1},
                 {"0", 0},     {"-0", 0},   {"000", 0},  {"FALSE", 0},
                 {"false", 0}, {"True", 0}, {"yes", 0},  {"1x", 0},
                 {"x1", 0},    {" 1", 0},   {"-", 0},    {"", 0}};
    for (const auto& [text, truth] : cases) {
        const vex::UniqueObject one(newObject(personWith("flag", {text})));
        int value = -1;
        EXPECT_EQ(vexGetAttributeBool(nullptr, one.get(), "flag", &value), VEX_OK);
        EXPECT_EQ(value, truth) << text;
    }
}

TEST_F(Object, ClonesAreHandlesThatLiveAndDieApart) {
    vexObject* clone = ChmCloneObject(object.get());
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone, object.get());
    EXPECT_EQ(&*clone->content, &*object->content) << "one object, no bytes copied";
    object.reset();
    char* text = nullptr;
    ASSERT_EQ(vexGetAttributeStr(nullptr, clone, "cn", &text), VEX_OK);
    EXPECT_STREQ(text, "ann");
    vexFreeString(text);
    vexFreeObject(clone);
    EXPECT_EQ(ChmCloneObject(nullptr), nullptr);
}

TEST_F(Object, IsSharedByThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([clone = ChmCloneObject(object.get())]() mutable {
            for (int i = 0; i < 1000; ++i) {
                vexObject* next = ChmCloneObject(clone);
                vexFreeObject(std::exchange(clone, next));
            }
            vex::BlobList list;
            EXPECT_EQ(list.read(nullptr, clone, "mail"), VEX_OK);
            vexFreeObject(clone);
        });
    }
    object.reset();
    for (std::thread& thread : threads) thread.join();
}

TEST_F(Object, NullArgumentsAreInvalid) {
    char* text;
    int number;
    vexBlob* values;
    unsigned cursor = 0;
    const vexObject* one = object.get();
    EXPECT_EQ(vexGetAttributeStr(nullptr, nullptr, "cn", &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeStr(nullptr, one, nullptr, &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeStr(nullptr, one, "cn", nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBool(nullptr, nullptr, "cn", &number), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBool(nullptr, one, nullptr, &number), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBool(nullptr, one, "cn", nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, nullptr, "cn", &values, &number), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, one, nullptr, &values, &number), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, one, "cn", nullptr, &number), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, one, "cn", &values, nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetFirstAttribute(nullptr, nullptr, &cursor, &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetFirstAttribute(nullptr, one, nullptr, &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetFirstAttribute(nullptr, one, &cursor, nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetNextAttribute(nullptr, nullptr, &cursor, &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetNextAttribute(nullptr, one, nullptr, &text), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetNextAttribute(nullptr, one, &cursor, nullptr), VEX_INVALID_ARGUMENT);
    EXPECT_EQ(vexGetObjectSize(nullptr), 0u);
    vexFreeString(nullptr);
    vexFreeObject(nullptr);
    vexFreeStringSet(nullptr);
    vexFreeAttributeBlobList(nullptr, 0);
}

TEST_F(Object, CutShortAnywhereIsNotSound) {
    const std::string whole = packed(personWith("mail", {"a@x"}));
    for (std::size_t size = 0; size + 4 < whole.size(); ++size) {
        // On the heap at its exact size, so that a read beyond it is seen.
        const std::vector<std::uint8_t> part(whole.begin(),
                                             whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(vex::isSoundObject(part)) << size;
    }
}

// An object whose last attributes are made by hand, so many of one kind.
template <typename Make>
std::vector<std::uint8_t> withLastAttribute(Make make, int times = 1) {
    namespace wire = vex::wire;
    flatbuffers::FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<wire::Attribute>> attributes;
    for (const auto& [name, values] : person("ann"))
        attributes.push_back(wire::CreateAttribute(builder, builder.CreateString(name),
                                                   builder.CreateVectorOfStrings(values)));
    const flatbuffers::Offset<wire::Attribute> last = make(builder);
    attributes.insert(attributes.end(), static_cast<std::size_t>(times), last);
    builder.Finish(wire::CreateObject(builder, builder.CreateVector(attributes)));
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

TEST_F(Object, WithAnAttributeThatLeadsOutOfItIsNotSound) {
    const std::vector<std::uint8_t> sound = withLastAttribute([](auto& builder) {
        const std::vector<std::string> values{"VALUE"};
        return vex::wire::CreateAttribute(builder, builder.CreateString("NAME"),
                                          builder.CreateVectorOfStrings(values));
    });
    ASSERT_TRUE(vex::isSoundObject(sound));
    for (const std::string text : {"NAME", "VALUE"}) {
        std::vector<std::uint8_t> broken = sound;
        const auto at = std::search(broken.begin(), broken.end(), text.begin(), text.end());
        ASSERT_NE(at, broken.end());
        *(at - 1) = 0x7f;  // the highest byte of its length
        EXPECT_FALSE(vex::isSoundObject(broken)) << text;
    }
}

TEST_F(Object, WithMoreValuesThanItHasRoomForIsNotSound) {
    const auto manyValues = [](auto& builder) {
        const auto name = builder.CreateString("mail");
        const auto value = builder.CreateString("a@x");
        return vex::wire::CreateAttribute(builder, name, builder.CreateVector(std::vector(1000, value)));
    };
    EXPECT_TRUE(vex::isSoundObject(withLastAttribute(manyValues))) << "each value has its offset";
    EXPECT_FALSE(vex::isSoundObject(withLastAttribute(manyValues, 3))) << "those are counted thrice";
}

TEST(Names, OfCodes) {
    const struct {
        int code;
        const char* name;
    } cases[] = {{0, "success"},         {2, "invalid argument"}, {3, "no memory"},
                 {4, "not supported"},   {6, "broken session"},   {7, "end of results"},
                 {8, "directory error"}, {9, "no such object"},   {10, "no such attribute"},
                 {11, "bad filter"},     {12, "unavailable"},     {13, "no such user"},
                 {14, "wrong password"}, {15, "account refused"}, {16, "refused"},
                 {32, "broken handle"},  {36, "object gone"},     {1, "unknown code"},
                 {5, "unknown code"},    {-1, "unknown code"}};
    for (const auto& [code, name] : cases) {
        const char* text = nullptr;
        EXPECT_EQ(vexGetVexCodeStr(code, &text), VEX_OK);
        EXPECT_STREQ(text, name);
    }
    EXPECT_EQ(vexGetVexCodeStr(0, nullptr), VEX_INVALID_ARGUMENT);
}

TEST(Names, OfErrorSystems) {
    const char* const names[] = {"unknown system", "agent", "LDAP", "Kerberos", "system", "unknown system"};
    for (int system = 0; system < 6; ++system) {
        const char* text = nullptr;
        EXPECT_EQ(vexGetErrSystemStr(system, &text), VEX_OK);
        EXPECT_STREQ(text, names[system]);
    }
    EXPECT_EQ(vexGetErrSystemStr(1, nullptr), VEX_INVALID_ARGUMENT);
}

}  // namespace
}  // namespace vextest
