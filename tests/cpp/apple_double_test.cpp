// The C++ interface: Finder Info and AppleDouble records, on each kind of volume.
#include "cpp/apple_double.hpp"

#include "cpp/copy.hpp"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/native_double.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <type_traits>
#include <vector>

namespace {

using vexofileop::Access;
using vexofileop::AppleDouble;
using vexofileop::Attributes;
using vexofileop::Code;
using vexofileop::finder_info;
using vexofileop::FinderInfo;
using vexofileop::ResourceFork;
using vexofileop::set_finder_info;
using Entry = AppleDouble::Entry;

FinderInfo text_file() {
    return FinderInfo().set_type("TEXT").set_creator("ttxt").set_flags(FinderInfo::invisible).set_label(3);
}

TEST(CppFinderInfo, HasTypeCreatorFlagsAndLabel) {
    const FinderInfo info = text_file();
    EXPECT_EQ("TEXT", info.type());
    EXPECT_EQ("ttxt", info.creator());
    EXPECT_EQ(3, info.label());
    EXPECT_EQ(0x4006, info.flags());
    EXPECT_EQ(0x40, info.bytes()[8]);
    EXPECT_EQ(6, info.bytes()[9]);
    EXPECT_EQ(FinderInfo(info.bytes()), info);
    EXPECT_EQ("a   ", FinderInfo().set_type("a").type());
    EXPECT_EQ("abcd", FinderInfo().set_type("abcdef").type());
    EXPECT_EQ(0x4000, FinderInfo(info).set_label(8).flags()) << "a label has three bits";
    EXPECT_TRUE(FinderInfo().empty());
    EXPECT_FALSE(info.empty());
    EXPECT_NE(FinderInfo(), info);
}

// On volumes of these types: a "._" file, "@eaDir", "@eaDir" with an attribute.
class CppAppleDouble : public kit::Behaviour, public ::testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
        kit::PlatformDouble::setType(scratch.path(), GetParam());
        kit::writeFile(file, "data");
    }
    std::string place() const { return GetParam() == 0 ? scratch / "._file" : scratch / "@eaDir/file@VexoResource"; }
    const std::string file = scratch / "file";
};
INSTANTIATE_TEST_SUITE_P(Volumes, CppAppleDouble, ::testing::Values(0, 1, 2));

TEST_P(CppAppleDouble, FinderInfoIsSetReadAndTakenAway) {
    EXPECT_TRUE(finder_info(file).value().empty());
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    EXPECT_EQ((std::vector<std::string>{"file"}), kit::namesIn(scratch.path())) << "nothing is made of nothing";
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ(text_file(), finder_info(file).value());
    EXPECT_EQ(82U, kit::readFile(place()).size());
    const FinderInfo other = text_file().set_type("PDF ");
    ASSERT_TRUE(set_finder_info(file, other));
    EXPECT_EQ(other, finder_info(file).value());
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    EXPECT_TRUE(finder_info(file).value().empty());
    EXPECT_EQ("data", kit::readFile(file));
    EXPECT_EQ(Code::invalid_argument, finder_info("").error().code());
}

TEST_P(CppAppleDouble, NothingIsWrittenIntoAnEmptyStore) {
    std::filesystem::create_directories(std::filesystem::path(place()).parent_path());
    kit::writeFile(place(), "");
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    EXPECT_EQ("", kit::readFile(place()));
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ(text_file(), finder_info(file).value());
}

TEST_P(CppAppleDouble, FinderInfoLeavesForkAndAttributes) {
    ASSERT_TRUE(Attributes::of(file).value().set("user.comment", "sunset"));
    ASSERT_TRUE(ResourceFork::open(file, Access::create).value().write("resource"));
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ("sunset", Attributes::of(file).value().get("user.comment").value());
    EXPECT_EQ("resource", ResourceFork::open(file, Access::read).value().read_all().value());
    ASSERT_TRUE(ResourceFork::open(file, Access::write).value().write("RE"));
    EXPECT_EQ(text_file(), finder_info(file).value());
}

TEST_P(CppAppleDouble, FinderInfoTravelsToEveryOtherKind) {
    ASSERT_TRUE(set_finder_info(file, text_file()));
    for (const int type : {0, 1, 2}) {
        const std::string there = scratch / std::to_string(type);
        ASSERT_EQ(0, ::mkdir(there.c_str(), 0755));
        kit::PlatformDouble::setType(there, type);
        ASSERT_TRUE(vexofileop::copy_file(file, there + "/copy"));
        EXPECT_EQ(text_file(), finder_info(there + "/copy").value()) << type;
    }
}

TEST_P(CppAppleDouble, NewStoreThatCannotBeWrittenIsNoDamagedOne) {
    for (const char *function : {"write", "pwrite"}) {
        kit::Faults::failAlways(function, ENOSPC);
        const auto written = set_finder_info(file, text_file());
        kit::Faults::reset();
        if (!written) {
            EXPECT_EQ(ENOSPC, written.error().system_errno()) << written.error().what();
            EXPECT_TRUE(!kit::exists(place()) || kit::readFile(place()).empty());
            EXPECT_TRUE(finder_info(file).value().empty());
        } else {
            EXPECT_EQ(text_file(), finder_info(file).value());
            std::filesystem::remove(place());
        }
    }
}

TEST_P(CppAppleDouble, LockOfAnotherProcessIsNotWaitedFor) {
    ASSERT_TRUE(set_finder_info(file, text_file()));
    const ResourceFork held = ResourceFork::open(file, Access::write).value();
    EXPECT_TRUE(kit::holdsInChild([this] {
        EXPECT_EQ(Code::locked, finder_info(file).error().code());
        EXPECT_EQ(Code::locked, set_finder_info(file, FinderInfo().set_type("x")).error().code());
    }));
}

TEST_P(CppAppleDouble, RecordOfAFileHasItsEntries) {
    EXPECT_TRUE(AppleDouble::of(file).error().is_missing());
    ASSERT_TRUE(set_finder_info(file, text_file()));
    const bool isShort = GetParam() == 1; // a resource file of less than 741 bytes counts as none
    EXPECT_EQ(isShort, !AppleDouble::of(file).has_value());
    ASSERT_TRUE(ResourceFork::open(file, Access::create).value().write(std::string(700, 'f')));
    const AppleDouble record = AppleDouble::of(file).value();
    EXPECT_EQ(text_file(), record.finder_info());
    EXPECT_EQ(32U, record[Entry::finder_info].size());
    EXPECT_TRUE(record.has(Entry::finder_info));
    EXPECT_EQ(GetParam() != 2, record.has(Entry::resource_fork));
    EXPECT_EQ(GetParam() == 2, record.has(Entry::comment));
    EXPECT_EQ("", record[Entry::comment]);
    EXPECT_EQ(0x00051607U, record.record().magic);
}

TEST_P(CppAppleDouble, RecordIsChangedAndStored) {
    ASSERT_TRUE(ResourceFork::open(file, Access::create).value().write(std::string(2000, 'f')));
    ASSERT_TRUE(set_finder_info(file, text_file()));
    AppleDouble record = AppleDouble::of(file).value();
    const FinderInfo other = text_file().set_type("PDF ");
    const std::string bytes(other.bytes().begin(), other.bytes().end());
    EXPECT_EQ(Code::invalid_argument, record.set(Entry::finder_info, bytes.substr(1)).error().code());
    EXPECT_EQ(Code::invalid_argument, record.set(Entry::dates, bytes).error().code());
    ASSERT_TRUE(record.set(Entry::finder_info, bytes));
    EXPECT_EQ(other, record.finder_info());
    const auto stored = record.store(file);
    EXPECT_EQ(GetParam() != 0, stored.has_value());
    EXPECT_TRUE(stored || stored.error().system_errno() == EOPNOTSUPP);
    EXPECT_EQ(stored ? other : text_file(), AppleDouble::of(file).value().finder_info());
    EXPECT_EQ(std::string(2000, 'f'), ResourceFork::open(file, Access::read).value().read_all().value())
        << "what lies behind the record stays";
}

TEST_P(CppAppleDouble, FilesOfOtherMachinesAreFound) {
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ(scratch / "._file", vexofileop::apple_double_path(file).value());
    EXPECT_EQ(Code::name_too_long, vexofileop::apple_double_path("/" + std::string(254, 'n')).error().code());
    EXPECT_EQ(Code::name_too_long, vexofileop::apple_double_path("/" + std::string(5000, '/') + "n").error().code());
    EXPECT_EQ(GetParam() == 0, vexofileop::is_apple_double_file(scratch / "._file"));
    EXPECT_FALSE(vexofileop::is_apple_double_file(file));
    EXPECT_FALSE(vexofileop::is_apple_double_file(""));
}

TEST(CppAppleDoubleParse, RefusesWhatIsNone) {
    EXPECT_EQ(Code::read, AppleDouble::parse("").error().code());
    EXPECT_EQ(Code::read, AppleDouble::parse("a text that is long enough for a header").error().code());
    const std::string start("\0\5\26\7\0\2\0\0Mac OS X        \0\1", 26);
    EXPECT_EQ(Code::invalid_argument,
              AppleDouble::parse(start + std::string("\0\0\0\0\0\0\0\62\0\0\0\40", 12)).error().code());
    // A fork may be longer than what is looked at, and is cut to that.
    const AppleDouble fork =
        AppleDouble::parse(start + std::string("\0\0\0\2\0\0\0\50\0\1\0\0", 12) + "..fork" + std::string(2000, 'k'))
            .value();
    EXPECT_EQ(65536U, fork.length(Entry::resource_fork));
    EXPECT_EQ(1024U - 40, fork[Entry::resource_fork].size());
    EXPECT_EQ("fork", fork[Entry::resource_fork].substr(0, 4));
    EXPECT_TRUE(fork.finder_info().empty());
}

class CppMetadata : public CppAppleDouble {};
INSTANTIATE_TEST_SUITE_P(Volumes, CppMetadata, ::testing::Values(2));

// Programs that know the attribute alone see it, and what the resource file says meanwhile arrives there.
TEST_P(CppMetadata, AttributeFollowsTheResourceFile) {
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ(text_file(), AppleDouble::of(file).value().finder_info());
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    EXPECT_TRUE(AppleDouble::of(file).value().finder_info().empty());
    const FinderInfo other = text_file().set_type("PDF ");
    ASSERT_EQ(0, VEXOEAEADirFSFInfoWrite(file.c_str(), other.bytes().data()));
    // The kernel's stamps may lag behind the clock: at a new second the file would be older than the attribute.
    int64_t stamp = 0;
    ASSERT_EQ(ssize_t{sizeof stamp}, ::getxattr(file.c_str(), "user.vexo.filea.flushtime", &stamp, sizeof stamp));
    const timespec times[] = {{stamp, 0}, {stamp, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, place().c_str(), times, 0));
    EXPECT_EQ(other, finder_info(file).value()) << "the attribute says nothing";
    EXPECT_FALSE(vexofileop::synchronise_finder_info(scratch / "none").value());
    ASSERT_EQ(0, ::truncate(place().c_str(), 0));
    std::filesystem::remove(place());
    EXPECT_TRUE(vexofileop::synchronise_finder_info(file).value()) << "there is a stamp, and no resource file";
    EXPECT_EQ(Code::invalid_argument, vexofileop::synchronise_finder_info("").error().code());
    // A record that is not of 402 bytes is none of such a volume.
    const AppleDouble other_size = AppleDouble::parse(AppleDouble::of(file).value().bytes().substr(0, 401)).value();
    EXPECT_EQ(Code::invalid_argument, other_size.store(file).error().code());
}

class CppNativeFinderInfo : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        kit::writeFile(file, "data");
    }
    const std::string file = scratch / "file";
};

TEST_F(CppNativeFinderInfo, IsAnAttributeOfTheFile) {
    kit::PlatformDouble::setType(scratch.path(), 7);
    kit::NativeDouble::setVolume(scratch.path());
    EXPECT_TRUE(finder_info(file).value().empty());
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    ASSERT_TRUE(set_finder_info(file, text_file()));
    EXPECT_EQ(text_file(), finder_info(file).value());
    EXPECT_EQ("TEXTttxt", kit::attribute(file, "com.apple.FinderInfo").substr(0, 8));
    ASSERT_TRUE(set_finder_info(file, FinderInfo()));
    EXPECT_TRUE(Attributes::of(file).value().names().value().empty());
    kit::setAttribute(file, "com.apple.FinderInfo", "short");
    EXPECT_EQ(Code::read, finder_info(file).error().code());
}

TEST_F(CppNativeFinderInfo, VolumeThatKeepsNothingSaysSo) {
    for (const int type : {7, 12}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_EQ(EOPNOTSUPP, AppleDouble::of(file).error().system_errno()) << type;
    }
    EXPECT_EQ(EOPNOTSUPP, finder_info(file).error().system_errno());
    EXPECT_EQ(EOPNOTSUPP, set_finder_info(file, text_file()).error().system_errno());
}

} // namespace
