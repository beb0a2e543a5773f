// The metadata attribute of a source, brought back into its resource file before that is copied: when that is done,
// when what is in the resource file wins, and what becomes of a source that cannot be written.
#include "ea/ea.h"
#include "tests/ea/store_copy.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;

constexpr char kStamp[] = "user.vexo.filea.flushtime";
const std::string kInAttribute = kit::pattern(32, 99);
const std::string kInResource = kit::pattern(32, 7);

class CopySync : public store_copy::StoreCopy {
  protected:
    // A source with Finder Info in both places, stamped so many seconds after the resource file was changed.
    void prepareBoth(const std::string &inResource, const std::string &inAttribute, int64_t stampAfterResource,
                     int toKind = kEaDirectory) {
        StoreCopy::prepare(kFileEa, toKind, {inAttribute, "fork", {}, {}, false}, newRoot());
        kit::writeFile(from.resource(), resourceBytes(inResource, "fork"));
        const time_t changed = ::time(nullptr) - 1000;
        const std::array<timeval, 2> times = {timeval{changed, 0}, timeval{changed, 0}};
        ::utimes(from.resource().c_str(), times.data());
        const int64_t stamp = changed + stampAfterResource;
        kit::setAttribute(from.path(), kStamp, {reinterpret_cast<const char *>(&stamp), sizeof stamp});
    }
    std::string infoOfResource(const Place &place) const { return content(place.resource()).substr(50, 32); }
};

TEST_F(CopySync, ResourceChangedSinceWins) {
    prepareBoth(kInResource, kInAttribute, -1);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kInResource, infoOfResource(from));
    EXPECT_EQ(kInResource, infoOfResource(to));
}

TEST_F(CopySync, AttributeStampedSinceWins) {
    for (const int64_t after : {0, 500}) {
        prepareBoth(kInResource, kInAttribute, after);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(kInAttribute, infoOfResource(to)) << after;
    }
}

TEST_F(CopySync, ZerosOverwriteNothing) {
    for (const int64_t after : {-1, 500}) {
        prepareBoth(kInResource, std::string(32, '\0'), after);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(kInResource, infoOfResource(from));
        EXPECT_EQ(kInResource, infoOfResource(to)) << after;
    }
}

TEST_F(CopySync, ResourceWithoutFinderInfoGetsIt) {
    prepareBoth(std::string(32, '\0'), kInAttribute, -1);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kInAttribute, infoOfResource(to));
    EXPECT_EQ("fork", read(to, kEaDirectory).fork);
}

TEST_F(CopySync, ZerosMakeNoStoreAtTheSource) {
    for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        prepare(kFileEa, toKind, {}, newRoot());
        ::rmdir(from.eaDirectory().c_str());
        kit::setAttribute(from.path(), "user.netatalk.Metadata", metadataBytes(""));
        const int64_t stamp = ::time(nullptr) - 1000;
        kit::setAttribute(from.path(), kStamp, {reinterpret_cast<const char *>(&stamp), sizeof stamp});
        EXPECT_EQ(0, copy()) << kit::Log::all();
        EXPECT_FALSE(kit::exists(from.eaDirectory())) << name(toKind);
    }
}

TEST_F(CopySync, SourceThatCannotBeWrittenIsReadAsItIs) {
    for (const int error : {EROFS, EACCES, EPERM}) {
        for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
            prepareBoth(std::string(32, '\0'), kInAttribute, -1, toKind);
            kit::setAttribute(from.path(), "user.own", "value");
            kit::Faults::add({.function = "open", .error = error, .path = from.resource(), .skip = 1, .times = 1});
            EXPECT_EQ(0, copy()) << name(toKind) << kit::Log::all();
            EXPECT_EQ(std::vector<std::string>{"[0x0900]Failed file sync [" + from.path() + "]->[" + to.path() + "]. " +
                                               std::strerror(error)},
                      reports());
            EXPECT_EQ("fork", read(to, toKind).fork);
            if (toKind == kEaDirectory || toKind == kFileEa) {
                EXPECT_EQ("value", kit::attribute(to.path(), "user.own"));
            }
        }
    }
}

} // namespace
