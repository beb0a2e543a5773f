// The C++ interface: named attributes, streams and resource forks, on each kind of volume.
#include "cpp/attributes.hpp"

#include "cpp/copy.hpp"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using vexofileop::Access;
using vexofileop::Attributes;
using vexofileop::Code;
using vexofileop::ResourceFork;
using vexofileop::Stream;

// On volumes of these types: a "._" file, "@eaDir", "@eaDir" with an attribute.
class CppAttributes : public kit::Behaviour, public ::testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
        kit::PlatformDouble::setType(scratch.path(), GetParam());
        kit::writeFile(file, "data");
    }
    Stream stream(Access access = Access::create) const { return Stream::open(file, access).value(); }
    ResourceFork fork(Access access = Access::create) const { return ResourceFork::open(file, access).value(); }
    const std::string file = scratch / "file";
};
INSTANTIATE_TEST_SUITE_P(Volumes, CppAttributes, ::testing::Values(0, 1, 2));

TEST_P(CppAttributes, AreSetReadListedAndRemoved) {
    const Attributes attributes = Attributes::of(file).value();
    EXPECT_TRUE(attributes.names().value().empty());
    EXPECT_TRUE(attributes.get("none").error().is_missing());
    EXPECT_FALSE(attributes.remove("none").value());
    ASSERT_TRUE(attributes.set("one", "1"));
    ASSERT_TRUE(attributes.set("two", std::string("a\0b", 3)));
    ASSERT_TRUE(attributes.set("empty", ""));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "empty"}), attributes.names().value());
    std::string walked;
    for (const std::string &name : attributes.names().value()) {
        walked += name;
    }
    EXPECT_EQ("onetwoempty", walked) << "what a result gave outlives it";
    EXPECT_EQ(std::string("a\0b", 3), attributes.get("two").value());
    EXPECT_EQ("", attributes.get("empty").value());
    EXPECT_TRUE(attributes.remove("one").value());
    EXPECT_TRUE(attributes.get("one").error().is_missing());
    EXPECT_EQ(Code::attribute_missing, attributes.get("one").error().code());
    EXPECT_EQ("data", kit::readFile(file));
}

TEST_P(CppAttributes, ShorterValueReplacesAllOfALongerOne) {
    const Attributes attributes = Attributes::of(file).value();
    ASSERT_TRUE(attributes.set("name", "a long value"));
    ASSERT_TRUE(attributes.set("name", "short"));
    EXPECT_EQ("short", attributes.get("name").value());
    ASSERT_TRUE(attributes.set("name", ""));
    EXPECT_EQ("", attributes.get("name").value());
}

TEST_P(CppAttributes, NameWithANulIsRefused) {
    const Attributes attributes = Attributes::of(file).value();
    const std::string name("a\0b", 3);
    EXPECT_EQ(Code::invalid_argument, attributes.set(name, "x").error().code());
    ASSERT_TRUE(attributes.set("a", "kept"));
    EXPECT_FALSE(attributes.get(name));
    EXPECT_EQ(Code::invalid_argument, attributes.remove(name).error().code());
    EXPECT_EQ("kept", attributes.get("a").value());
}

TEST_P(CppAttributes, StreamIteratesWithSizes) {
    Stream open = stream();
    EXPECT_TRUE(open.empty());
    ASSERT_TRUE(open.set("first", "1"));
    ASSERT_TRUE(open.set("second", "22"));
    std::vector<std::pair<std::string, uint32_t>> found;
    for (const vexofileop::Attribute attribute : open) {
        found.emplace_back(attribute.name, attribute.size);
    }
    EXPECT_EQ((std::vector<std::pair<std::string, uint32_t>>{{"first", 1}, {"second", 2}}), found);
    EXPECT_EQ(2u, open.size());
    EXPECT_TRUE(open.contains("second"));
    EXPECT_FALSE(open.contains("third"));
}

TEST_P(CppAttributes, PartsOfValues) {
    Stream open = stream();
    ASSERT_TRUE(open.write("value", "world", 6));
    ASSERT_TRUE(open.write("value", "hello", 0));
    EXPECT_EQ(std::string("hello\0world", 11), open.get("value").value());
    char part[8] = "";
    EXPECT_EQ(5u, open.read("value", part, sizeof part, 6).value());
    EXPECT_EQ("world", std::string(part, 5));
    EXPECT_EQ(0u, open.read("value", part, sizeof part, 11).value());
    EXPECT_EQ(0u, open.read("value", part, 0, 0).value());
    EXPECT_TRUE(open.sync());
}

TEST_P(CppAttributes, MovedStreamGoesOnAndTheOldOneLetsGo) {
    Stream open = stream();
    ASSERT_TRUE(open.set("name", "x"));
    Stream other = std::move(open);
    EXPECT_EQ("x", other.get("name").value());
    kit::writeFile(scratch / "second", "");
    other = Stream::open(scratch / "second", Access::create).value();
    EXPECT_TRUE(other.empty());
    EXPECT_EQ("x", Attributes::of(file).value().get("name").value());
    static_assert(!std::is_copy_constructible_v<Stream> && std::is_nothrow_move_constructible_v<Stream>);
    static_assert(!std::is_copy_constructible_v<ResourceFork>);
}

TEST_P(CppAttributes, StreamThatIsMissingIsSaidSoAndNotMade) {
    VLIBCErrSetEx(0x2900, "earlier.c", 1); // of a call before, which is not this one's
    const auto missing = Stream::open(file, Access::write);
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().is_missing()) << missing.error().what();
    EXPECT_EQ(Code::none, missing.error().code());
    EXPECT_EQ(ENOENT, missing.error().system_errno());
    EXPECT_STREQ("", missing.error().source_file());
    EXPECT_EQ((std::vector<std::string>{"file"}), kit::namesIn(scratch.path()));
}

TEST_P(CppAttributes, StreamThatIsReplacedBeforeItsLockIsOpenedAgain) {
    ASSERT_TRUE(stream().set("name", "old"));
    const std::string place = GetParam() == 0 ? scratch / "._file" : scratch / "@eaDir/file@VexoEAStream";
    std::filesystem::copy_file(place, scratch / "next");
    bool replaced = false;
    kit::Faults::add({.function = "fcntl", .path = place, .before = [&] {
                          replaced = true;
                          std::filesystem::rename(scratch / "next", place);
                      }});
    Stream open = stream(Access::write);
    ASSERT_TRUE(replaced);
    ASSERT_TRUE(open.set("name", "new"));
    EXPECT_EQ("new", Attributes::of(file).value().get("name").value());
}

TEST_P(CppAttributes, WritingToAStreamOpenedForReadingIsRefused) {
    ASSERT_TRUE(stream().set("name", "x"));
    Stream open = stream(Access::read);
    EXPECT_EQ(Code::permission, open.set("name", "y").error().code());
    EXPECT_EQ("x", open.get("name").value());
}

TEST_P(CppAttributes, LockOfAnotherProcessIsNotWaitedFor) {
    const Stream held = stream();
    EXPECT_TRUE(kit::holdsInChild([this] {
        const auto refused = Stream::open(file, Access::read);
        EXPECT_FALSE(refused);
        EXPECT_EQ(Code::locked, refused.error().code());
    }));
}

TEST_P(CppAttributes, ShorterValueThatCannotBeWrittenLeavesTheOldOne) {
    ASSERT_TRUE(stream().set("name", "a long value"));
    Stream open = stream(Access::write);
    // The removal goes through, the new value does not.
    for (int skip = 0; skip < 40; ++skip) {
        kit::Faults::reset();
        kit::Faults::fail("write", ENOSPC, {}, skip);
        kit::Faults::fail("pwrite", ENOSPC, {}, skip);
        const auto written = open.set("name", "short");
        kit::Faults::reset();
        if (written) {
            ASSERT_LT(0, skip) << "no write was refused";
            break;
        }
        EXPECT_EQ("a long value", open.get("name").value()) << skip;
    }
    EXPECT_EQ("short", open.get("name").value());
}

TEST_P(CppAttributes, ForkIsWrittenReadAndSought) {
    {
        ResourceFork open = fork();
        EXPECT_EQ(0u, open.size());
        ASSERT_TRUE(open.write("hello"));
        open.seek(8);
        ASSERT_TRUE(open.write("world"));
        EXPECT_EQ(13u, open.tell());
        EXPECT_TRUE(open.sync());
    }
    ResourceFork open = fork(Access::read);
    EXPECT_EQ(13u, open.size());
    EXPECT_EQ(std::string("hello\0\0\0world", 13), open.read_all().value());
    EXPECT_EQ(0u, open.tell());
    char part[32] = "";
    open.seek(10);
    EXPECT_EQ(3u, open.read(part, sizeof part).value());
    EXPECT_EQ("rld", std::string(part, 3));
    EXPECT_EQ(0u, open.read(part, sizeof part).value());
    EXPECT_EQ(Code::permission, open.write("x").error().code());
    EXPECT_EQ(Code::permission, open.truncate(0).error().code());
}

TEST_P(CppAttributes, ForkIsCutAndLengthenedWithZeros) {
    ResourceFork open = fork();
    ASSERT_TRUE(open.write("hello world"));
    ASSERT_TRUE(open.truncate(5));
    EXPECT_EQ("hello", open.read_all().value());
    ASSERT_TRUE(open.truncate(7));
    EXPECT_EQ(std::string("hello\0\0", 7), open.read_all().value());
    open.seek(3);
    ASSERT_TRUE(open.write("LOWER"));
    EXPECT_EQ("helLOWER", open.read_all().value());
    ASSERT_TRUE(open.truncate(0));
    EXPECT_EQ("", open.read_all().value());
}

TEST_P(CppAttributes, ForkTravelsWithTheFileAndSoDoTheAttributes) {
    ASSERT_TRUE(Attributes::of(file).value().set("user.comment", "sunset"));
    ASSERT_TRUE(fork().write("resource"));
    ASSERT_TRUE(Attributes::of(file).value().set("user.other", "set with a fork there"));
    ASSERT_TRUE(vexofileop::copy_file(file, scratch / "copy"));
    const Attributes attributes = Attributes::of(scratch / "copy").value();
    EXPECT_EQ("sunset", attributes.get("user.comment").value());
    EXPECT_EQ("set with a fork there", attributes.get("user.other").value());
    EXPECT_EQ("resource", ResourceFork::open(scratch / "copy", Access::read).value().read_all().value());
    ASSERT_TRUE(attributes.remove("user.other").value());
    ASSERT_TRUE(attributes.set("user.comment", "dawn"));
    EXPECT_EQ("resource", ResourceFork::open(scratch / "copy", Access::read).value().read_all().value());
}

TEST_P(CppAttributes, ForkThatCannotGrowIsAsItWas) {
    ResourceFork open = fork();
    ASSERT_TRUE(open.write("hello"));
    kit::Faults::failAlways("pwrite", ENOSPC);
    open.seek(2);
    EXPECT_EQ(Code::no_space, open.write("something longer").error().code());
    EXPECT_EQ(2u, open.tell());
    kit::Faults::reset();
    EXPECT_EQ("hello", open.read_all().value());
    EXPECT_EQ("hello", fork(Access::read).read_all().value());
    open.seek(UINT64_MAX - 2);
    EXPECT_EQ(Code::too_large, open.write("behind the end of all").error().code());
    EXPECT_EQ(Code::too_large, open.truncate(UINT32_MAX).error().code());
}

TEST_P(CppAttributes, ForkThatIsMissingIsSaidSoAndNotMade) {
    const auto missing = ResourceFork::open(file, Access::read);
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().is_missing()) << missing.error().what();
    EXPECT_EQ((std::vector<std::string>{"file"}), kit::namesIn(scratch.path()));
}

TEST_P(CppAttributes, StoreIsCopiedRenamedAndRemoved) {
    ASSERT_TRUE(Attributes::of(file).value().set("user.comment", "x"));
    const std::string other = scratch / "other";
    kit::writeFile(other, "");
    ASSERT_TRUE(vexofileop::copy_store(file, other));
    EXPECT_EQ("x", Attributes::of(other).value().get("user.comment").value());
    std::filesystem::rename(other, scratch / "third");
    ASSERT_TRUE(vexofileop::rename_store(other, scratch / "third"));
    EXPECT_EQ("x", Attributes::of(scratch / "third").value().get("user.comment").value());
    ASSERT_TRUE(vexofileop::remove_store(scratch / "third"));
    EXPECT_TRUE(Attributes::of(scratch / "third").value().names().value().empty());
    EXPECT_EQ(Code::invalid_argument, vexofileop::remove_store("").error().code());
    const std::string cut("b\0hidden", 8);
    for (const auto &refused : {vexofileop::copy_store(file, cut), vexofileop::rename_store(file, cut)}) {
        EXPECT_EQ(cut, refused.error().path().native()) << "the path that is wrong is named";
    }
}

class CppFork : public CppAttributes {
  protected:
    // The file that the fork lies in, with another content.
    void put(const std::string &content) const { kit::writeFile(place(), content); }
    std::string place() const { return GetParam() == 0 ? scratch / "._file" : scratch / "@eaDir/file@VexoResource"; }
    static std::string number(uint32_t value) {
        return {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
                static_cast<char>(value)};
    }
    static std::string header(std::initializer_list<std::array<uint32_t, 3>> entries) {
        std::string out("\0\5\26\7\0\2\0\0Mac OS X        \0", 25);
        out += static_cast<char>(entries.size());
        for (const auto &entry : entries) {
            out += number(entry[0]) + number(entry[1]) + number(entry[2]);
        }
        return out;
    }
    void SetUp() override {
        CppAttributes::SetUp();
        if (!IsSkipped()) {
            ASSERT_TRUE(fork().write("x"));
        }
    }
};
INSTANTIATE_TEST_SUITE_P(Volumes, CppFork, ::testing::Values(0, 1));

TEST_P(CppFork, WhatLiesBehindItKeepsItFromGrowing) {
    const std::string zeros(32, '\0');
    const std::string bytes = header({{9, 62, 32}, {2, 94, 4}, {4, 98, 7}}) + zeros + "forkcomment";
    put(bytes);
    ResourceFork open = fork(Access::write);
    EXPECT_EQ("fork", open.read_all().value());
    EXPECT_EQ(Code::upgrade_format, open.truncate(20).error().code());
    EXPECT_EQ(bytes, kit::readFile(place()));
    ASSERT_TRUE(open.write("FORK"));
    EXPECT_EQ(header({{9, 62, 32}, {2, 94, 4}, {4, 98, 7}}) + zeros + "FORKcomment", kit::readFile(place()));
    ASSERT_TRUE(open.truncate(2));
    EXPECT_EQ("FO", fork(Access::read).read_all().value());
    EXPECT_EQ("comment", kit::readFile(place()).substr(98));
}

TEST_P(CppFork, OneThatLiesInTheHeaderIsNotWritten) {
    const std::string bytes = header({{9, 50, 32}, {2, 10, 30}}) + std::string(32, '\0');
    put(bytes);
    auto open = ResourceFork::open(file, Access::write);
    EXPECT_TRUE(!open || !open->write("trash"));
    EXPECT_TRUE(!open || !open->truncate(100));
    EXPECT_EQ(bytes, kit::readFile(place()));
}

TEST_P(CppFork, WhatLayBehindItDoesNotComeToLight) {
    const std::string before = header({{9, 50, 32}, {2, 82, 4}}) + std::string(32, '\0') + "fork";
    put(before + "left over");
    ASSERT_TRUE(fork(Access::write).truncate(8));
    EXPECT_EQ(std::string("fork\0\0\0\0", 8), fork(Access::read).read_all().value());
}

TEST_P(CppFork, FileIsAsItWasWhereItCannotGrow) {
    const std::string before = header({{9, 50, 32}, {2, 82, 4}}) + std::string(32, '\0') + "fork";
    put(before);
    for (int skip = 0; skip < 2; ++skip) { // its bytes, its length
        kit::Faults::fail("pwrite", ENOSPC, {}, skip);
        ResourceFork open = fork(Access::write);
        open.seek(4);
        EXPECT_EQ(Code::no_space, open.write("and more").error().code());
        EXPECT_EQ(before, kit::readFile(place())) << skip;
        kit::Faults::reset();
    }
}

TEST_P(CppFork, OneThatLostItsEndIsNotFilledWithZeros) {
    const std::string bytes = header({{9, 50, 32}, {2, 82, 100}}) + std::string(32, '\0') + "only this";
    put(bytes);
    auto open = ResourceFork::open(file, Access::write);
    if (open) {
        EXPECT_EQ(Code::read, open->read_all().error().code());
        EXPECT_EQ(Code::read, open->truncate(200).error().code());
    }
    EXPECT_EQ(bytes, kit::readFile(place()));
}

TEST_P(CppFork, WhatIsNoStoreIsNotOne) {
    for (const std::string &bytes : {std::string("no header"), std::string(200, 'x'), header({{9, 50, 32}})}) {
        put(bytes);
        EXPECT_FALSE(ResourceFork::open(file, Access::create));
        EXPECT_EQ(bytes, kit::readFile(place()));
    }
}

TEST_P(CppFork, LinkInItsPlaceIsNotFollowed) {
    kit::writeFile(scratch / "outside", "outside");
    std::filesystem::remove(place());
    std::filesystem::create_symlink(scratch / "outside", place());
    const auto open = ResourceFork::open(file, Access::create);
    ASSERT_FALSE(open);
    EXPECT_EQ(ELOOP, open.error().system_errno());
    EXPECT_EQ("outside", kit::readFile(scratch / "outside"));
}

class CppNative : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("which the operations on forks become");
        kit::PlatformDouble::setType(scratch.path(), 7);
    }
    const std::string file = scratch / "file";
};

TEST_F(CppNative, AttributesAreThoseOfTheFile) {
    kit::writeFile(file, "data");
    const Attributes attributes = Attributes::of(file).value();
    EXPECT_EQ(vexofileop::StoreKind::native, attributes.kind());
    ASSERT_TRUE(attributes.set("user.name", "value"));
    EXPECT_EQ("value", kit::attribute(file, "user.name"));
    EXPECT_EQ("value", attributes.get("user.name").value());
    EXPECT_EQ((std::vector<std::string>{"user.name"}), attributes.names().value());
    ASSERT_TRUE(attributes.set("user.name", ""));
    EXPECT_EQ("", attributes.get("user.name").value());
    EXPECT_TRUE(attributes.remove("user.name").value());
    EXPECT_FALSE(attributes.remove("user.name").value());
    EXPECT_TRUE(attributes.get("user.name").error().is_missing());
    EXPECT_FALSE(Stream::open(file, Access::create));
}

TEST_F(CppNative, ForkIsThatOfTheFile) {
    kit::ForkDouble::make(file, "hello world");
    ResourceFork open = ResourceFork::open(file, Access::write).value();
    EXPECT_EQ("hello world", open.read_all().value());
    open.seek(6);
    ASSERT_TRUE(open.write("there, you"));
    EXPECT_EQ("hello there, you", kit::ForkDouble::read(file));
    ASSERT_TRUE(open.truncate(5));
    EXPECT_EQ("hello", kit::ForkDouble::read(file));
    ASSERT_TRUE(open.truncate(6));
    EXPECT_EQ(std::string("hello\0", 6), kit::ForkDouble::read(file));
}

TEST_F(CppNative, EmptyForkIsMissingUnlessItIsMade) {
    kit::ForkDouble::make(file, "");
    EXPECT_TRUE(ResourceFork::open(file, Access::read).error().is_missing());
    ASSERT_TRUE(ResourceFork::open(file, Access::create).value().write("new"));
    EXPECT_EQ("new", kit::ForkDouble::read(file));
}

TEST_F(CppNative, VolumeThatKeepsNothingSaysSo) {
    kit::PlatformDouble::setType(scratch.path(), 12);
    kit::writeFile(file, "data");
    EXPECT_EQ(EOPNOTSUPP, Attributes::of(file).error().system_errno());
    EXPECT_EQ(EOPNOTSUPP, Stream::open(file, Access::create).error().system_errno());
    EXPECT_EQ(EOPNOTSUPP, ResourceFork::open(file, Access::create).error().system_errno());
}

} // namespace
