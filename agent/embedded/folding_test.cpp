// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/folding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/embedded/directory_testing.h"
#include "agent/embedded/filter.h"

namespace vexagent {
namespace {

using ::testing::UnorderedElementsAreArray;

TEST(FoldCase, MakesTextsEqualThatDifferInCaseOnly) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"abz AZ09 {", "ABZ AZ09 {"},
        {"łukasz Żak", "ŁUKASZ ŻAK"},
        {"Βασίλης", "ΒΑΣΊΛΗΣ"},  // both small sigmas
        {"иван", "ИВАН"},
        {"山田", "山田"},
        {"ß", "ß"},                            // one character stays one
        {"ẞ", "ß"},                            // and so the large one follows
        {"\u2126", "Ω"},                       // the Ohm sign is an omega
        {"ⱥ", "Ⱥ"},                            // shorter in bytes
        {"𐐨", "𐐀"},                            // beyond 16 bits
        {"ı\u0130ſ\u212A", "ı\u0130ſ\u212A"},  // never become letters of ASCII
        {"é", "É"},
        {"e\u0301", "E\u0301"},  // a decomposed form keeps its mark
        {"\u07FFa\u0800\uFFFF\U00010000", "\u07FFA\u0800\uFFFF\U00010000"},
        {"a\xFFz", "A\xFFZ"},  // no UTF-8
        {"\xC5", "\xC5"},      // cut short
        {"\xC5z", "\xC5Z"},
        {"\xC1\xA1", "\xC1\xA1"},                  // overlong
        {"\xE0\x82\xA1", "\xE0\x82\xA1"},          // overlong
        {"\xED\xA0\x80", "\xED\xA0\x80"},          // a surrogate
        {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},  // beyond the last character
    };
    for (const auto& [text, folded] : cases) EXPECT_EQ(foldCase(text), folded) << text;
}

// What LDB is asked for; "none" and "all" for the foregone ones.
std::string loosened(const std::string& text) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    if (!parseFilter(pool.get(), text, tree).ok()) return "bad";
    const ParseTree* wanted = tree;
    const std::string before = ldb_filter_from_tree(pool.get(), wanted);
    const Selection selection = loosenFilter(pool.get(), tree);
    EXPECT_EQ(ldb_filter_from_tree(pool.get(), wanted), before);
    if (selection == Selection::Nothing) return "none";
    return selection == Selection::All ? "all" : ldb_filter_from_tree(pool.get(), tree);
}

TEST(LoosenFilter, SelectsAtLeastTheSameObjects) {
    const std::pair<const char*, const char*> cases[] = {
        // ASCII and attributes whose case counts stay
        {"(cn=a)", "(cn=a)"},
        {"(!(cn=a*))", "(!(cn=a*))"},
        {"(unixHomeDirectory=/home/ł)", "(unixHomeDirectory=/home/\\C5\\82)"},
        {"(memberUid=ł)", "(memberUid=\\C5\\82)"},
        {"(uidNumber=ł)", "(uidNumber=\\C5\\82)"},
        {"(distinguishedName=CN=ł)", "(distinguishedName=CN=\\C5\\82)"},
        {"(dn=CN=ł)", "(dn=CN=\\C5\\82)"},
        // every kind of assertion with a value
        {"(cn=ł)", "(cn=*)"},
        {"(displayName=ł*)", "(displayName=*)"},
        {"(displayName=*a*ł*)", "(displayName=*)"},
        {"(sn>=ł)", "(sn=*)"},
        {"(sn<=ł)", "(sn=*)"},
        {"(member=CN=ł,DC=x)", "(member=*)"},
        {"(cn=*)", "(cn=*)"},
        // a NOT above it
        {"(!(cn=ł))", "all"},
        {"(!(!(cn=ł)))", "(!(!(cn=*)))"},
        {"(&(sn=a)(!(cn=ł)))", "(sn=a)"},
        {"(|(sn=a)(!(cn=ł)))", "all"},
        {"(!(|(sn=a)(cn=ł)))", "(!(sn=a))"},
        {"(!(&(sn=a)(cn=ł)))", "all"},
        {"(!(&(sn=a)(!(cn=ł))))", "(!(&(sn=a)(!(cn=*))))"},
        // the rest of a list stays
        {"(&(uid=a)(cn=ł))", "(&(uid=a)(cn=*))"},
        {"(|(uid=a)(cn=ł))", "(|(uid=a)(cn=*))"},
    };
    for (const auto& [filter, expected] : cases) EXPECT_EQ(loosened(filter), expected) << filter;
}

TEST(QuickFilter, HasAnAssertionThatNeedsNoFolding) {
    const std::pair<const char*, bool> cases[] = {
        {"(cn=ł)", false},       {"(&(cn=ł)(uid=a))", true}, {"(|(cn=ł)(uid=a))", false},
        {"(memberUid=ł)", true}, {"(_dn=CN=ł)", true},
    };
    for (const auto& [filter, quick] : cases) {
        const Pool pool = newPool();
        ParseTree* tree = nullptr;
        ASSERT_TRUE(parseFilter(pool.get(), filter, tree).ok()) << filter;
        EXPECT_EQ(isQuickFilter(tree), quick) << filter;
    }
}

std::string abroad() {
    return units() + person("Łukasz Żak", "lukasz", 1001, "displayName: Łukasz Żak\nsn: Żak\n") +
           person("Βασίλης", "vasilis", 1002, "displayName: Βασίλης Παππάς\nunixHomeDirectory: /home/β\n") +
           person("Chloé", "chloe", 1003, "displayName: Chloé Dubois\n") +
           person("Ann", "ann", 1004, "displayName: Ann Lee\nsn: Lee\n") + person("Bare", "bare", 1005) +
           group("friends", 2001, {"CN=Łukasz Żak,OU=People", "CN=Ann,OU=People"}, "description: Żak\n");
}

// The account names that a search finds.
std::vector<std::string> logins(const TestDirectory& directory, const Query& query) {
    Batch batch;
    std::unique_ptr<Cursor> rest;
    const Result result = directory->search(query, batch, rest);
    if (!result.ok()) return {result.errText};
    std::vector<std::string> found;
    for (const Object& object : batch.objects)
        if (const std::string login = value(object, "sAMAccountName"); !login.empty()) found.push_back(login);
    return found;
}

TEST(SearchWithFolding, FindsWhatDiffersInCaseOnly) {
    const TestDirectory directory(abroad());
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"(displayName=łukasz żak)", {"lukasz"}},
        {"(displayName=ŁUKASZ ŻAK)", {"lukasz"}},
        {"(displayName=Łukasz Żak)", {"lukasz"}},
        {"(displayName=łukasz*)", {"lukasz"}},
        {"(displayName=*żak)", {"lukasz"}},
        {"(displayName=*KASZ ż*)", {"lukasz"}},
        {"(displayName=l*)", {}},
        {"(displayName=lukasz*)", {}},  // a letter with a stroke is another letter
        {"(cn=βασίλησ)", {"vasilis"}},  // whichever sigma
        {"(cn=CHLOÉ)", {"chloe"}},
        {"(cn=chloe\u0301)", {}},  // decomposed
        // in LDB's order letters outside ASCII come first
        {"(sn>=żA)", {"lukasz", "ann"}},
        {"(sn>=żB)", {"ann"}},
        {"(sn<=żB)", {"lukasz"}},
        {"(sn<=ż)", {}},
        {"(displayName=\\c5*)", {"lukasz"}},  // no UTF-8: byte by byte
        {"(unixHomeDirectory=/home/Β)", {}},  // where case counts
        {"(member=cn=łukasz żak,ou=people,dc=example,dc=com)", {"friends"}},
        {"(|(displayName=łukasz*)(sAMAccountName=ann))", {"lukasz", "ann"}},
        {"(&(displayName=łukasz*)(sAMAccountName=ann))", {}},
        {"(&(displayName=łukasz*)(sAMAccountName=lukasz))", {"lukasz"}},
        {"(&(objectClass=user)(!(displayName=łukasz*)))", {"vasilis", "chloe", "ann", "bare"}},
        {"(&(objectClass=user)(!(!(displayName=łukasz*))))", {"lukasz"}},
        {"(&(objectClass=user)(!(|(displayName=łukasz*)(cn=βασίλης)(cn=ann))))", {"chloe", "bare"}},
        {"(&(objectClass=user)(!(&(displayName=łukasz*)(uidNumber=1001))))",
         {"vasilis", "chloe", "ann", "bare"}},
        // an assertion on a secret stays undefined
        {"(|(displayName=łukasz*)(userPassword=ł))", {"lukasz"}},
        {"(!(&(displayName=łukasz*)(userPassword=ł)))", {"vasilis", "chloe", "ann", "bare", "friends"}},
        {"(!(|(displayName=łukasz*)(userPassword=ł)))", {}},
        // with the object's own DN beside
        {"(&(_dn=CN=Łukasz Żak,OU=People,DC=example,DC=com)(displayName=łukasz*))", {"lukasz"}},
        {"(&(objectCategory=person)(displayName=łukasz*))", {"lukasz"}},
    };
    for (const auto& [filter, expected] : cases) {
        Query query;
        query.filter = filter;
        EXPECT_THAT(logins(directory, query), UnorderedElementsAreArray(expected)) << filter;
    }
}

TEST(SearchWithFolding, SeesTheGroupsOfTheZonesView) {
    const TestDirectory directory(abroad());
    Query query;
    query.view.zone = true;
    query.view.attributes = {"sAMAccountName"};
    query.filter = "(&(memberUid=lukasz)(description=żAK))";
    EXPECT_THAT(logins(directory, query), UnorderedElementsAreArray({"friends"}));
    query.filter = "(&(memberUid=chloe)(description=żAK))";
    EXPECT_THAT(logins(directory, query), UnorderedElementsAreArray(std::vector<std::string>{}));
}

TEST(SearchWithFolding, LeavesTheNextSearchToLdb) {
    const TestDirectory directory(abroad());
    Query folding;
    folding.filter = "(cn=chloé)";
    EXPECT_EQ(logins(directory, folding), std::vector<std::string>{"chloe"});
    // The index keys in the file are LDB's own.
    Object object;
    EXPECT_TRUE(directory->fetch("", "CN=Chloé,OU=People,DC=example,DC=com", {}, object).ok());
}

TEST(SearchWithFolding, CountsAndBatchesWhatMatches) {
    std::string text = units();
    for (int i = 0; i < 300; ++i)
        text +=
            person((i % 3 == 0 ? "Ödön " : "Anders ") + std::to_string(i), "u" + std::to_string(i), 1000 + i);
    const TestDirectory directory(text);
    Query query;
    query.filter = "(cn=ödön*)";
    query.firstBatch = 10;
    Batch first;
    std::unique_ptr<Cursor> rest;
    ASSERT_TRUE(directory->search(query, first, rest).ok());
    EXPECT_EQ(first.objects.size(), 10u);
    EXPECT_EQ(first.total, 100u);
    ASSERT_TRUE(rest);
    Batch more;
    ASSERT_TRUE(rest->next(more).ok());
    EXPECT_EQ(more.objects.size(), 90u);
    EXPECT_TRUE(rest->atEnd());
}

}  // namespace
}  // namespace vexagent
