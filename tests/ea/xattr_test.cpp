// Attributes that the file system keeps: reading, setting, removing and listing them, and the arguments refused.
#include "ea/ea.h"

#include "tests/kit/behaviour.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/xattr.h>
#include <syslog.h>
#include <vector>

namespace {

class Xattr : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        kit::writeFile(path, "data");
    }
    // The call was refused with this line, from this source.
    static void expectRefused(int result, const std::string &condition, const std::string &source) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0x0D00u, VLIBCErrGet());
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Invaild Argument (" + condition + ")=[0]\n")) << kit::Log::all();
        ASSERT_EQ(1u, kit::Log::lines().size());
        EXPECT_EQ(source, kit::Log::lines()[0].source);
        EXPECT_EQ(source, VLIBCErrorGetFile());
        kit::Log::reset();
    }
    // A list owned by the test.
    class List {
      public:
        List() : m_list(VLIBCSzListAlloc(1)) {}
        List(const List &) = delete;
        List &operator=(const List &) = delete;
        ~List() { VLIBCSzListFree(m_list); }
        VLIBCSzList **get() { return &m_list; }
        std::vector<std::string> names() const {
            std::vector<std::string> names;
            for (int at = 0; at < m_list->count; ++at) {
                names.emplace_back(VLIBCSzListGet(m_list, at));
            }
            return names;
        }

      private:
        VLIBCSzList *m_list;
    };

    const std::string path = scratch / "file";
    char buffer[64] = {};
};

TEST_F(Xattr, GetRefusesBadArguments) {
    const char *source = "ea/ea_xattr_get.c";
    expectRefused(VEXOEAXattrGet(nullptr, "user.a", buffer, 4), "((void *)0) != szPath", source);
    expectRefused(VEXOEAXattrGet(path.c_str(), nullptr, buffer, 4), "((void *)0) != szName", source);
    const char *value = "((0 < cbValue && NULL != szValue) || 0 == cbValue)";
    expectRefused(VEXOEAXattrGet(path.c_str(), "user.a", nullptr, 4), value, source);
    expectRefused(VEXOEAXattrGet(path.c_str(), "user.a", buffer, -1), value, source);
    expectRefused(VEXOEAXattrGet(path.c_str(), "user.a", nullptr, -1), value, source);
}

TEST_F(Xattr, SetRefusesBadArguments) {
    const char *source = "ea/ea_xattr_set.c";
    expectRefused(VEXOEAXattrSet(nullptr, "user.a", "v", 1, 0), "((void *)0) != szPath", source);
    expectRefused(VEXOEAXattrSet(path.c_str(), nullptr, "v", 1, 0), "((void *)0) != szName", source);
    expectRefused(VEXOEAXattrSet(path.c_str(), "user.a", nullptr, 0, 0), "((void *)0) != szValue", source);
    expectRefused(VEXOEAXattrSet(path.c_str(), "user.a", "v", -1, 0), "0 <= cbValue", source);
}

TEST_F(Xattr, RemoveRefusesBadArguments) {
    const char *source = "ea/ea_xattr_remove.c";
    expectRefused(VEXOEAXattrRemove(nullptr, "user.a"), "((void *)0) != szPath", source);
    expectRefused(VEXOEAXattrRemove(path.c_str(), nullptr), "NULL != szName", source);
}

TEST_F(Xattr, EnumRefusesBadArguments) {
    const char *source = "ea/ea_xattr_enum.c";
    List list;
    VLIBCSzList *none = nullptr;
    expectRefused(VEXOEAXattrEnum(nullptr, list.get()), "((void *)0) != szPath", source);
    expectRefused(VEXOEAXattrEnum(path.c_str(), nullptr), "((void *)0) != ppList", source);
    expectRefused(VEXOEAXattrEnum(path.c_str(), &none), "NULL != *ppList", source);
}

TEST_F(Xattr, SetGetAndRemove) {
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), "user.a", "value", 5, 0));
    EXPECT_EQ("value", kit::attribute(path, "user.a"));
    EXPECT_EQ(5, VEXOEAXattrGet(path.c_str(), "user.a", nullptr, 0));
    EXPECT_EQ(5, VEXOEAXattrGet(path.c_str(), "user.a", buffer, sizeof buffer));
    EXPECT_EQ("value", std::string(buffer, 5));
    EXPECT_EQ(0, VEXOEAXattrRemove(path.c_str(), "user.a"));
    EXPECT_EQ(-1, VEXOEAXattrGet(path.c_str(), "user.a", nullptr, 0));
    EXPECT_EQ(ENODATA, errno);
}

TEST_F(Xattr, SizeQueryIgnoresTheBuffer) {
    ASSERT_EQ(0, VEXOEAXattrSet(path.c_str(), "user.a", "value", 5, 0));
    EXPECT_EQ(5, VEXOEAXattrGet(path.c_str(), "user.a", buffer, 0));
    EXPECT_EQ(0, buffer[0]);
}

TEST_F(Xattr, EmptyValueIsKept) {
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), "user.a", "", 0, 0));
    EXPECT_EQ(0, VEXOEAXattrGet(path.c_str(), "user.a", buffer, sizeof buffer));
}

TEST_F(Xattr, FailuresLeaveErrnoOnly) {
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), "user.a", "value", 5, 0));
    EXPECT_EQ(-1, VEXOEAXattrGet(path.c_str(), "user.a", buffer, 3));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(-1, VEXOEAXattrSet(path.c_str(), "user.a", "x", 1, XATTR_CREATE));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(-1, VEXOEAXattrSet(path.c_str(), "user.b", "x", 1, XATTR_REPLACE));
    EXPECT_EQ(ENODATA, errno);
    EXPECT_EQ(-1, VEXOEAXattrRemove(path.c_str(), "user.b"));
    EXPECT_EQ(ENODATA, errno);
    EXPECT_EQ(-1, VEXOEAXattrGet((scratch / "none").c_str(), "user.a", buffer, 3));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Xattr, NameThatOnlyBeginsLikeTheForkIsAnAttribute) {
    // No namespace, so the file system refuses it: the name arrived there as it is.
    EXPECT_EQ(-1, VEXOEAXattrGet(path.c_str(), "com.apple.ResourceForks", buffer, sizeof buffer));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(-1, VEXOEAXattrSet(path.c_str(), "com.apple.ResourceFork2", "x", 1, 0));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(-1, VEXOEAXattrRemove(path.c_str(), "com.apple.resourcefork"));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Xattr, EnumAppendsTheNames) {
    kit::setAttribute(path, "user.one", "1");
    kit::setAttribute(path, "user.line\nfeed", "2");
    List list;
    ASSERT_GE(VLIBCSzListPush(list.get(), "before"), 0);
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), list.get()));
    std::vector<std::string> names = list.names();
    ASSERT_EQ(3u, names.size());
    EXPECT_EQ("before", names[0]);
    std::sort(names.begin() + 1, names.end());
    EXPECT_EQ("user.line\nfeed", names[1]);
    EXPECT_EQ("user.one", names[2]);
}

TEST_F(Xattr, EnumNeverListsTheFork) {
    kit::ForkDouble::make(scratch / "forked", "bytes");
    kit::setAttribute(scratch / "forked", "user.one", "1");
    List list;
    EXPECT_EQ(0, VEXOEAXattrEnum((scratch / "forked").c_str(), list.get()));
    EXPECT_EQ(std::vector<std::string>{"user.one"}, list.names());
}

TEST_F(Xattr, EnumOfNothingEmptiesTheList) {
    for (const std::string &where : {path, scratch / "none"}) {
        List list;
        ASSERT_GE(VLIBCSzListPush(list.get(), "before"), 0);
        EXPECT_EQ(0, VEXOEAXattrEnum(where.c_str(), list.get()));
        EXPECT_TRUE(list.names().empty());
    }
    List list;
    ASSERT_GE(VLIBCSzListPush(list.get(), "before"), 0);
    kit::Faults::fail("listxattr", ENODATA);
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), list.get()));
    EXPECT_TRUE(list.names().empty());
}

// More names than arrive with the first call.
void setManyAttributes(const std::string &path) {
    for (const char letter : {'a', 'b', 'c', 'd', 'e', 'f'}) {
        kit::setAttribute(path, "user." + std::string(200, letter), "1");
    }
}

TEST_F(Xattr, EnumAsksOnceForAShortListAndAgainForALongOne) {
    kit::setAttribute(path, "user.one", "1");
    kit::Faults::record(true);
    List few;
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), few.get()));
    EXPECT_EQ(1u, few.names().size());
    EXPECT_EQ(1, kit::Faults::count("listxattr"));

    setManyAttributes(path);
    List many;
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), many.get()));
    EXPECT_EQ(7u, many.names().size());
    EXPECT_EQ(4, kit::Faults::count("listxattr"));
}

TEST_F(Xattr, EnumFailureKeepsTheList) {
    setManyAttributes(path);
    for (const int skip : {0, 1, 2}) {
        List list;
        ASSERT_GE(VLIBCSzListPush(list.get(), "before"), 0);
        kit::Faults::reset();
        kit::Faults::fail("listxattr", EIO, path, skip);
        EXPECT_FAILS(VEXOEAXattrEnum(path.c_str(), list.get()), 0x2A00);
        EXPECT_EQ(EIO, errno);
        EXPECT_EQ(std::vector<std::string>{"before"}, list.names());
    }
}

TEST_F(Xattr, EnumOfALongListThatGrowsFails) {
    setManyAttributes(path);
    kit::Faults::add({.function = "listxattr", .skip = 2, .before = [&] { kit::setAttribute(path, "user.two", "2"); }});
    List list;
    EXPECT_FAILS(VEXOEAXattrEnum(path.c_str(), list.get()), 0x2A00);
    EXPECT_EQ(ERANGE, errno);
    EXPECT_TRUE(list.names().empty());
}

TEST_F(Xattr, EnumOfALongListThatShrinksGivesWhatIsLeft) {
    kit::setAttribute(path, "user.one", "1");
    setManyAttributes(path);
    kit::Faults::add({.function = "listxattr", .skip = 2, .before = [&] { ::removexattr(path.c_str(), "user.one"); }});
    List list;
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), list.get()));
    EXPECT_EQ(6u, list.names().size());
    const std::vector<std::string> names = list.names();
    EXPECT_EQ(names.end(), std::find(names.begin(), names.end(), "user.one"));
}

TEST_F(Xattr, EnumOfALongListThatIsGoneMeanwhileEmptiesTheList) {
    setManyAttributes(path);
    kit::Faults::add({.function = "listxattr", .skip = 1, .before = [&] {
                          for (const char letter : {'a', 'b', 'c', 'd', 'e', 'f'}) {
                              ::removexattr(path.c_str(), ("user." + std::string(200, letter)).c_str());
                          }
                      }});
    List list;
    ASSERT_GE(VLIBCSzListPush(list.get(), "before"), 0);
    EXPECT_EQ(0, VEXOEAXattrEnum(path.c_str(), list.get()));
    EXPECT_TRUE(list.names().empty());
}

TEST_F(Xattr, EnumKeepsNamesPushedBeforeAFailure) {
    kit::setAttribute(path, "user.one", "1");
    kit::setAttribute(path, "user.two", "2");
    kit::Faults::fail("VLIBCSzListPush", ENOMEM, {}, 1);
    List list;
    EXPECT_EQ(-1, VEXOEAXattrEnum(path.c_str(), list.get()));
    EXPECT_EQ(1u, list.names().size());
}

TEST_F(Xattr, EnumOfALongListWithoutMemoryFails) {
    setManyAttributes(path);
    List list;
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_FAILS(VEXOEAXattrEnum(path.c_str(), list.get()), 0x0100);
}

} // namespace
