// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/ldif.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "agent/directory/identifiers.h"
#include "agent/embedded/directory_testing.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;

// What a failing load says, without the file's name.
std::string loadError(const std::string& ldif) {
    const TemporaryFolder folder;
    const std::string file = folder.write("in.ldif", ldif);
    std::vector<std::string> complaints;
    try {
        buildDatabase(folder.file("out.ldb"), file, kRoot, complaints);
    } catch (const DatabaseError& error) {
        EXPECT_FALSE(std::filesystem::exists(folder.file("out.ldb")));
        EXPECT_FALSE(std::filesystem::exists(folder.file("out.ldb.new")));
        EXPECT_FALSE(std::filesystem::exists(folder.file("out.ldb.new-lock")));
        const std::string text = error.what();
        EXPECT_EQ(text.rfind(file, 0), 0u) << text;
        return text.substr(std::min(file.size(), text.size()));
    }
    return "loaded";
}

TEST(LdifLoad, FailuresNameTheRecordsLineAndLeaveNothing) {
    const std::pair<std::string, const char*> cases[] = {
        {"dn: CN=a,DC=x\nobjectClass: user\n", "loaded"},
        {"# only a comment\nversion: 1\n\n", "loaded"},
        {"dn: CN=a,DC=x\nobjectClass: user\n\ndn: cn=A, dc=X\nobjectClass: user\n",
         ":4: cn=A,dc=X: there is an entry with this DN or objectGUID already"},
        {"\n\n# c\ndn: nonsense\nobjectClass: user\n", ":4: malformed LDIF"},
        {"dn: CN=a,DC=x\ncn: a\n", ":1: the entry has no objectClass"},
        {"cn: a\n", ":1: malformed LDIF"},
        {"dn: CN=a,DC=x\nno colon here\n", ":1: malformed LDIF"},
        {"dn: CN=a,DC=x\nobjectClass: user\ncn: a\nno colon here\nsn: b\n", ":1: malformed LDIF"},
        {"dn: CN=a,DC=x\nobjectClass: user\nsn:: %%%\n", ":1: malformed LDIF"},
        {"dn: CN=a,\n DC=x\nobjectClass: us\n er\nsn:: YW\n Fh\n", "loaded"},
        {"dn: CN=a,DC=x\nobjectClass: user\ntitle:\n",
         ":1: CN=a,DC=x: Element title has empty attribute in ldb message (CN=a,DC=x)!"},
        {"dn: CN=a,DC=x\nobjectClass: user\nobjectGUID: xyz\n", ":1: objectGUID is not a GUID"},
        {"dn: CN=a,DC=x\nobjectClass: user\nobjectSid: S-1-5-x\n", ":1: objectSid is not a SID"},
        {"dn: CN=a,DC=x\nobjectClass: user\nuserAccountControl: 0x202\n",
         ":1: userAccountControl is not one decimal number"},
        {"dn: CN=a,DC=x\nobjectClass: user\n\ndn: CN=b,DC=x\nobjectClass: user\n"
         "accountExpires: 18446744073709551616\n",
         ":4: accountExpires is not one decimal number"},
        {"dn: CN=a,DC=x\nobjectClass: user\nuserAccountControl: 512\nuserAccountControl: 514\n",
         ":1: userAccountControl is not one decimal number"},
        {"dn: CN=a,DC=x\nobjectClass: group\nmember: nobody\n", ":1: member is not a DN"},
        {"dn: CN=a,DC=x\nchangetype: delete\n", ":1: only entries can be loaded, not changes"},
        {"dn: @INDEXLIST\nobjectClass: x\n", ":1: the dn is reserved to the database"},
    };
    for (const auto& [ldif, expected] : cases) EXPECT_EQ(loadError(ldif), expected) << ldif;
}

TEST(LdifLoad, TextsThatAreNotUtf8AreNamed) {
    const TemporaryFolder folder;
    const std::string latin = "SvxyZ2Vu";  // "J", 0xFC, "rgen" in base64
    const std::string file = folder.write(
        "in.ldif",
        "dn: CN=a,DC=x\nobjectClass: user\ndescription: J\xc3\xbcrgen\n\n"
        "dn: CN=b,DC=x\nobjectClass: user\ndescription: fine\ndescription:: " +
            latin + "\ntitle: J\xfcrgen\nthumbnailPhoto:: " + latin + "\nx-own;binary:: " + latin + "\n\n" +
            "dn: CN=c,DC=x\ndescription:: " + latin + "\nobjectClass: user\n");
    std::vector<std::string> complaints;
    buildDatabase(folder.file("out.ldb"), file, kRoot, complaints);
    EXPECT_THAT(complaints,
                ElementsAre(file + ":5: CN=b,DC=x: description: a value is not UTF-8, and is not shown",
                            file + ":5: CN=b,DC=x: title: a value is not UTF-8, and is not shown",
                            file + ":13: CN=c,DC=x: description: a value is not UTF-8, and is not shown"));
}

TEST(LdifLoad, AMissingFileIsNamed) {
    const TemporaryFolder folder;
    std::vector<std::string> complaints;
    try {
        buildDatabase(folder.file("out.ldb"), folder.file("none.ldif"), kRoot, complaints);
        FAIL();
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.what(), folder.file("none.ldif") + ": No such file or directory");
    }
}

TEST(LdifLoad, CompletesEntries) {
    TestDirectory directory(
        "dn: cn=Ann, ou=People, dc=example,dc=com\nobjectClass: top\nobjectClass: user\n"
        "objectSid: S-1-5-21-1-2-3-7\nmanager: cn=Ben ,  dc=example,dc=com\nl: Rome\n\n"
        "dn: CN=Ben,DC=example,DC=com\nobjectClass: nisNetgroup\n"
        "objectGUID: 01020304-0506-0708-090a-0b0c0d0e0f10\n");
    Object ann;
    ASSERT_TRUE(directory->fetch("", "cn=ann,ou=people,dc=example,dc=com", {}, ann).ok());
    EXPECT_EQ(value(ann, "_dn"), "cn=Ann,ou=People,dc=example,dc=com");
    EXPECT_EQ(value(ann, "cn"), "Ann");
    EXPECT_EQ(value(ann, "l"), "Rome");
    EXPECT_EQ(value(ann, "objectCategory"), "CN=Person,CN=Schema,CN=Configuration,DC=example,DC=com");
    EXPECT_EQ(sidText(value(ann, "objectSid")), "S-1-5-21-1-2-3-7");
    EXPECT_EQ(value(ann, "manager"), "cn=Ben,dc=example,dc=com");
    EXPECT_EQ(value(ann, "_GUID"), guidText(guidFromName("CN=ANN,OU=PEOPLE,DC=EXAMPLE,DC=COM")));
    EXPECT_THAT(values(ann, "objectClass"), ElementsAre("top", "user"));

    Object ben;
    ASSERT_TRUE(directory->lookup("01020304-0506-0708-090a-0b0c0d0e0f10", {}, ben).ok());
    EXPECT_EQ(value(ben, "_dn"), "CN=Ben,DC=example,DC=com");
    EXPECT_EQ(value(ben, "_objectCategory"), "nisNetgroup");
}

TEST(LdifLoad, OnlyItsOwnerMayReadTheFile) {
    TestDirectory directory(units());
    struct stat status {};
    ASSERT_EQ(::stat(directory.database().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(LdifLoad, HashesThatOthersCanReadAreSeen) {
    const TemporaryFolder folder;
    const std::string hash = "USERpassword: {CRYPT}$y$x\n";
    const struct {
        std::string text;
        mode_t mode;
        bool shown;
    } cases[] = {
        {units() + person("Ann", "ann", 1, hash), 0644, true},
        {units() + person("Ann", "ann", 1, hash), 0640, true},
        {units() + person("Ann", "ann", 1, hash), 0600, false},
        {units() + person("Ann", "ann", 1, hash), 0400, false},
        {units() + person("Ann", "ann", 1, "userPassword:: e0NSWVBUfQ==\n"), 0644, true},
        {units() + person("Ann", "ann", 1), 0644, false},
    };
    for (const auto& [text, mode, shown] : cases) {
        const std::string file = folder.write("in.ldif", text);
        ASSERT_EQ(::chmod(file.c_str(), mode), 0);
        EXPECT_EQ(showsHashes(file), shown) << mode << text;
    }
    EXPECT_FALSE(showsHashes(folder.file("none")));
    EXPECT_FALSE(showsHashes(folder.path()));
}

TEST(LdifLoad, DoesNotReplaceAFile) {
    const TemporaryFolder folder;
    const std::string file = folder.write("out.ldb", "precious");
    std::vector<std::string> complaints;
    EXPECT_THROW(buildDatabase(file, folder.write("in.ldif", units()), kRoot, complaints), DatabaseError);
    std::string content;
    std::getline(std::ifstream(file) >> std::ws, content);
    EXPECT_EQ(content, "precious");
}

TEST(OpenDatabase, SaysWhatCannotBeServed) {
    const TemporaryFolder folder;
    const auto reason = [](const std::string& path) {
        try {
            Database database(path);
        } catch (const DatabaseError& error) {
            return std::string(error.what());
        }
        return std::string("opened");
    };
    const std::string none = folder.file("none");
    EXPECT_EQ(reason(none), none + ": No such file or directory");
    const std::string text = folder.write("text", std::string(4096, 'x'));
    EXPECT_EQ(reason(text), text + ": is not an LDB file on LMDB");
    const std::string tdb = folder.write("tdb", "TDB file\n" + std::string(4096, '\0'));
    EXPECT_EQ(reason(tdb),
              tdb +
                  ": is an LDB file on TDB, which cannot be read by several threads; write it out with "
                  "\"ldbsearch -H tdb://" +
                  tdb + "\", set embedded.ldif to the result and embedded.database to a new file");
    EXPECT_EQ(reason(folder.file("")), folder.file("") + ": is not a regular file");
    const std::string plain = folder.file("plain.ldb");
    { const LdbContext ldb = openLdb(plain, Access::Create); }
    EXPECT_EQ(reason(plain), plain + ": has no GUID index; write it out with \"ldbsearch -H mdb://" + plain +
                                 "\", set embedded.ldif to the result and embedded.database to a new file");
}

}  // namespace
}  // namespace vexagent
