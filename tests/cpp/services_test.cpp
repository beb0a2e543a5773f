// The C++ interface: archive bits, indexes and notifications, and the header that has everything.
#include "cpp/vexofileop.hpp"

#include "tests/kit/behaviour.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

using vexofileop::Code;

class CppServices : public kit::Behaviour {
  protected:
    const std::string file = scratch / "file";
};

TEST_F(CppServices, ArchiveBitIsSetToldAndCleared) {
    kit::writeFile(file, "x");
    EXPECT_FALSE(vexofileop::has_archive_bit(file).value());
    if (!vexofileop::set_archive_bit(file)) {
        GTEST_SKIP() << "this volume keeps no archive bit";
    }
    EXPECT_TRUE(vexofileop::has_archive_bit(file).value());
    ASSERT_TRUE(vexofileop::clear_archive_bit(file));
    EXPECT_FALSE(vexofileop::has_archive_bit(file).value());
    EXPECT_TRUE(vexofileop::clear_archive_bit(scratch.path()));
}

TEST_F(CppServices, ArchiveBitOfWhatIsNotThere) {
    EXPECT_TRUE(vexofileop::has_archive_bit(file).error().is_missing());
    EXPECT_TRUE(vexofileop::set_archive_bit(file).error().is_missing());
    const auto cleared = vexofileop::clear_archive_bit(file);
    EXPECT_EQ(Code::open, cleared.error().code());
    EXPECT_EQ(file, cleared.error().path());
    EXPECT_EQ(Code::invalid_argument, vexofileop::clear_archive_bit("").error().code());
}

TEST_F(CppServices, ClearedWithACopyWhereThatIsAsked) {
    kit::writeFile(file, "x");
    if (!vexofileop::set_archive_bit(file)) {
        GTEST_SKIP() << "this volume keeps no archive bit";
    }
    ASSERT_TRUE(vexofileop::copy_file(file, scratch / "kept"));
    EXPECT_TRUE(vexofileop::has_archive_bit(file).value());
    ASSERT_TRUE(vexofileop::copy_file(file, scratch / "cleared", vexofileop::CopyOptions().clear_archive()));
    EXPECT_FALSE(vexofileop::has_archive_bit(file).value());
}

TEST_F(CppServices, IndexingFollowsTheShare) {
    kit::writeFile(file, "x");
    kit::PlatformDouble::setShare(scratch.path(), "photo", 0x20, false);
    EXPECT_TRUE(vexofileop::indexing_of(file).value().enabled);
    EXPECT_FALSE(vexofileop::indexing_of(file).value().inRecycleBin);
    kit::PlatformDouble::setShare(scratch.path(), "photo", 0, false);
    EXPECT_FALSE(vexofileop::indexing_of(file).value().enabled);
    EXPECT_EQ(Code::invalid_argument, vexofileop::indexing_of("").error().code());
}

TEST_F(CppServices, IndexedPathIsAbsoluteAndNeverCut) {
    EXPECT_EQ("/volume1/a", vexofileop::indexed_path("/volume1/a").value());
    EXPECT_EQ(std::filesystem::current_path() / "a", vexofileop::indexed_path("./a").value());
    EXPECT_EQ(Code::name_too_long, vexofileop::indexed_path("/" + std::string(5000, 'a')).error().code());
    EXPECT_EQ(Code::name_too_long, vexofileop::indexed_path(std::string(4090, 'a')).error().code());
    EXPECT_EQ(Code::invalid_argument, vexofileop::indexed_path("").error().code());
}

TEST_F(CppServices, NotificationWithoutAServiceReturns) {
    EXPECT_EQ(Code::invalid_argument, vexofileop::notify("", 2).error().code());
    EXPECT_EQ(Code::invalid_argument, vexofileop::notify("/a", 2, std::filesystem::path()).error().code());
    kit::Faults::failAlways("connect", ECONNREFUSED);
    EXPECT_TRUE(vexofileop::notify("/volume1/new", 2, "/volume1/old"));
}

} // namespace
