// Shares and homes, from Samba's configuration and the user database.
#include "platform/core.h"
#include "platform/sdk.h"

#include "tests/kit/behaviour.h"

#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Shares : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        configure("");
        ::setenv("VEXOFILEOP_SMB_CONF", file.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("VEXOFILEOP_SMB_CONF");
        Behaviour::TearDown();
    }
    void configure(const std::string &text) { kit::writeFile(file, text); }
    static std::string holder(const std::string &path) {
        std::array<char, 492> name{};
        std::array<char, 4096> share{};
        const int result = VEXOShareNamePathGet(path.c_str(), name.data(), name.size(), share.data(), share.size());
        return result == 0 ? std::string(name.data()) + " " + share.data() : "failed";
    }
    struct Record {
        int result;
        std::string name, path;
        uint32_t status;
        int encrypted;
    };
    static Record get(const std::string &name) {
        VEXOShare *share = nullptr;
        Record record{VEXOShareGet(name.c_str(), &share), {}, {}, 0, -1};
        if (record.result == 0) {
            record.name = share->name;
            record.path = share->path;
            record.status = share->status;
            VLIBShareIsEncryptionGet(share, &record.encrypted);
            VEXOShareFree(share);
        }
        return record;
    }
    std::string file = scratch / "smb.conf";
};

TEST_F(Shares, AreFoundByThePathTheyHold) {
    configure("[global]\n\tworkgroup = X\n[docs]\n\tcomment = a\n\tpath = /srv/docs\n\tread only = no\n"
              "[Inner]\n   path=/srv/docs/inner/\n[tmp]\npath = \"/srv/with blank; and\"\n");
    EXPECT_EQ("docs /srv/docs", holder("/srv/docs"));
    EXPECT_EQ("docs /srv/docs", holder("/srv/docs/a/b"));
    EXPECT_EQ("Inner /srv/docs/inner", holder("/srv/docs/inner/x"));
    EXPECT_EQ("docs /srv/docs", holder("/srv/docs/innermost"));
    EXPECT_EQ("tmp /srv/with blank; and", holder("/srv/with blank; and/x"));
    EXPECT_EQ("failed", holder("/srv/documents"));
    EXPECT_EQ(0x0700u, VLIBCErrGet());
}

TEST_F(Shares, NamesThatDifferByABlankAreTwo) {
    configure("[my docs]\npath = /srv/one\n[mydocs]\npath = /srv/two\n");
    EXPECT_EQ("my docs /srv/one", holder("/srv/one/x"));
    EXPECT_EQ("mydocs /srv/two", holder("/srv/two/x"));
    EXPECT_EQ("/srv/two", get("MyDocs").path);
}

TEST_F(Shares, BadArgumentsAndMissingSharesAreToldApart) {
    configure("[docs]\npath = /srv/docs\n");
    char name[16] = "", path[16] = "";
    EXPECT_FAILS(VEXOShareNamePathGet(nullptr, name, 16, path, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("", name, 16, path, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("srv/docs", name, 16, path, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv/docs", nullptr, 16, path, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv/docs", name, 0, path, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv/docs", name, 16, nullptr, 16), 0x0D00);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv/docs", name, 4, path, 16), 0xC300);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv/docs", name, 16, path, 9), 0xC300);
    EXPECT_FAILS(VEXOShareNamePathGet("/srv", name, 16, path, 16), 0x0700);
    VEXOShare *share = nullptr;
    EXPECT_FAILS(VEXOShareGet("none", &share), 0x0700);
    EXPECT_FAILS(VEXOShareGet(nullptr, &share), 0x0D00);
    EXPECT_FAILS(VEXOShareGet("docs", nullptr), 0x0D00);
    VEXOShareFree(nullptr);
}

TEST_F(Shares, WithoutAConfigurationThereAreNone) {
    ASSERT_EQ(0, ::unlink(file.c_str()));
    EXPECT_EQ("failed", holder("/srv/docs"));
    EXPECT_EQ(0x0700u, VLIBCErrGet());
}

TEST_F(Shares, AnUnreadableConfigurationIsNotTakenForNone) {
    ::setenv("VEXOFILEOP_SMB_CONF", scratch.path().c_str(), 1); // a directory
    EXPECT_EQ("failed", holder("/srv/docs"));
    EXPECT_EQ(0xBE00u, VLIBCErrGet());
    VEXOShare *share = nullptr;
    EXPECT_FAILS(VEXOShareGet("docs", &share), 0xBE00);
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/docs/.recycle"));
}

TEST_F(Shares, RecordsCarryTheirSettings) {
    configure("[docs]\n path = " + scratch.path() +
              "\n vexo:index = Yes\n[safe]\npath=/srv/safe\nVexo : Encrypted=true\n");
    const Record docs = get("DOCS");
    EXPECT_EQ(0, docs.result);
    EXPECT_EQ("docs", docs.name);
    EXPECT_EQ(scratch.path(), docs.path);
    EXPECT_EQ(0x20u, docs.status & 0x20);
    EXPECT_EQ(0, docs.encrypted);
    const Record safe = get("safe");
    EXPECT_EQ(0u, safe.status & 0x20);
    EXPECT_EQ(1, safe.encrypted);
}

TEST_F(Shares, EncryptionOfAShareWhoseFolderIsGoneCannotBeTold) {
    configure("[docs]\npath = /no/such/folder\n");
    VEXOShare *share = nullptr;
    ASSERT_EQ(0, VEXOShareGet("docs", &share));
    int encrypted = 7;
    EXPECT_EQ(-1, VLIBShareIsEncryptionGet(share, &encrypted));
    EXPECT_EQ(7, encrypted);
    VEXOShareFree(share);
}

TEST_F(Shares, GlobalSettingsStandForTheSharesAfter) {
    configure("[global]\nvexo:index = yes\nvfs objects = acl_xattr recycle\nrecycle:repository = .bin/%U\n"
              "[a]\npath = /srv/a\n[b]\npath = /srv/b\nvexo:index = no\nvfs objects = fruit\n");
    EXPECT_EQ(0x20u, get("a").status & 0x20);
    EXPECT_EQ(0u, get("b").status & 0x20);
    EXPECT_EQ(1, VEXOShareIsShareRecycle("/srv/a/.bin/bob/file"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/a/.bin"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/a/bob/file"));
}

TEST_F(Shares, RecycleBinsAreKnown) {
    configure("[a]\npath = /srv/a\nvfs objects = recycle\n[b]\npath = /srv/b\nrecycle:repository = #recycle\n"
              "[c]\npath = /srv/c\n");
    EXPECT_EQ(1, VEXOShareIsShareRecycle("/srv/a/.recycle"));
    EXPECT_EQ(1, VEXOShareIsShareRecycle("/srv/a/.recycle/x/y"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/a/.recycled"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/a/x/.recycle"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/a"));
    EXPECT_EQ(1, VEXOShareIsShareRecycle("/srv/b/#recycle/x"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/srv/c/.recycle/x"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("/elsewhere/.recycle"));
    EXPECT_EQ(0, VEXOShareIsShareRecycle(nullptr));
    EXPECT_EQ(0, VEXOShareIsShareRecycle("relative"));
}

TEST_F(Shares, LongNamesAndPathsAreWhole) {
    const std::string name(80, 'n');
    const std::string path = "/" + std::string(200, 'a') + "/" + std::string(250, 'b') + ";c/" + std::string(255, 'd');
    configure("[" + name + "]\n    comment = " + std::string(3000, 'x') + "\n    path = " + path +
              "\n[other]\npath = /o\n");
    EXPECT_EQ(name + " " + path, holder(path + "/file"));
    EXPECT_EQ("other /o", holder("/o/x"));
    EXPECT_EQ(path, get(name).path);
}

TEST_F(Shares, LinesAreContinuedCommentsAreNotAndBadOnesPassedOver) {
    configure(
        "\xEF\xBB\xBF; path = /wrong\n[a]\r\npath = /srv/\\\r\n  a\r\n# vexo:index = no \\\r\nvexo:index = yes\r\n"
        "nonsense\n[b]\npath = /srv/b");
    EXPECT_EQ("a /srv/a", holder("/srv/a/x"));
    EXPECT_EQ(0x20u, get("a").status & 0x20);
    EXPECT_EQ("b /srv/b", holder("/srv/b/x"));
}

TEST_F(Shares, IncludedFilesAreReadInPlace) {
    const std::string more = scratch / "more.conf";
    kit::writeFile(more, "vexo:index = yes\n[b]\npath = /srv/b\ninclude = " + more + "\n");
    configure("[a]\npath = /srv/a\ninclude = " + more + "\n[c]\npath = /srv/c\ninclude = /no/such/file\n");
    EXPECT_EQ(0x20u, get("a").status & 0x20);
    EXPECT_EQ("b /srv/b", holder("/srv/b"));
    EXPECT_EQ("c /srv/c", holder("/srv/c"));
}

TEST_F(Shares, SubstitutionsAreTheShareOrNoFolder) {
    configure("[a]\npath = /srv/%S/x\n[b]\npath = /srv/%U\n[homes]\npath = /srv/homes/%S\n");
    EXPECT_EQ("a /srv/a/x", holder("/srv/a/x/y"));
    EXPECT_EQ("failed", holder("/srv/%U"));
    EXPECT_EQ("failed", holder("/srv/homes/bob"));
}

TEST_F(Shares, AShareReachedThroughALinkIsFound) {
    ASSERT_EQ(0, ::mkdir((scratch / "real").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("real", (scratch / "link").c_str()));
    configure("[a]\npath = " + (scratch / "link") + "\n");
    EXPECT_EQ("a " + (scratch / "link"), holder(scratch / "link/x"));
    EXPECT_EQ("a " + (scratch / "real"), holder(scratch / "real/x"));
}

class Homes : public Shares {
  protected:
    static std::string home(const std::string &path) {
        VEXOHomeCheckResult *result = nullptr;
        const int kind = VEXOServiceHomePathCheck(path.c_str(), 1, 1, &result);
        if (kind < 1) {
            return "none";
        }
        const std::string text = std::to_string(kind) + std::to_string(result->kind) + " " + result->user + " " +
                                 std::to_string(result->uid) + " " + result->home;
        VEXOHomeCheckResultFree(result);
        return text;
    }
};

TEST_F(Homes, AreThoseOfTheUserDatabase) {
    KIT_REQUIRE(etc, kit::Volume::overlay("/etc"));
    processAsNow();
    const std::string bob = scratch / "homes/bob";
    ASSERT_EQ(0, ::mkdir((scratch / "homes").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir(bob.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((bob + "/photo").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("homes", (scratch / "link").c_str()));
    ASSERT_EQ(0, ::chown(bob.c_str(), 31001, 100));
    kit::writeFile("/etc/passwd", kit::readFile("/etc/passwd") + "vexobob:x:31001:100::" + bob + ":/bin/sh\n" +
                                      "vexoroot:x:31002:100::/:/bin/sh\n");
    EXPECT_EQ("11 vexobob 31001 " + bob, home(bob + "/photo"));
    EXPECT_EQ("11 vexobob 31001 " + bob, home(bob));
    EXPECT_EQ("11 vexobob 31001 " + (scratch / "link/bob"), home(scratch / "link/bob/photo"));
    EXPECT_EQ("11 vexobob 31001 " + bob, home(bob + "/gone/by/now"));
    EXPECT_EQ("none", home(scratch / "homes"));
    EXPECT_EQ("none", home(scratch / "homes/bobby"));
}

TEST_F(Homes, AreThoseOfTheHomesSectionAndOfTheServices) {
    KIT_REQUIRE(etc, kit::Volume::overlay("/etc"));
    processAsNow();
    kit::writeFile("/etc/passwd", kit::readFile("/etc/passwd") + "vexobob:x:31001:100::/nonexistent:/bin/sh\n");
    configure("[homes]\n  path = /srv/people/%S/files\n");
    EXPECT_EQ("22 vexobob 31001 /srv/people/vexobob/files", home("/srv/people/vexobob/files/photo/x"));
    EXPECT_EQ("none", home("/srv/people/vexobob/other"));
    EXPECT_EQ("none", home("/srv/people/nobody-known/files/x"));
    EXPECT_EQ("none", home("/srv/people"));
    EXPECT_EQ("22 vexobob 31001 /var/services/homes/vexobob", home("/var/services/homes/vexobob/music"));
    EXPECT_EQ("none", home("/var/services/homes"));
}

TEST_F(Homes, BadArgumentsAreRefused) {
    VEXOHomeCheckResult *result = nullptr;
    EXPECT_GT(1, VEXOServiceHomePathCheck(nullptr, 1, 1, &result));
    EXPECT_GT(1, VEXOServiceHomePathCheck("relative", 1, 1, &result));
    EXPECT_GT(1, VEXOServiceHomePathCheck("/root", 1, 1, nullptr));
    EXPECT_EQ(nullptr, result);
    VEXOHomeCheckResultFree(nullptr);
}

} // namespace
