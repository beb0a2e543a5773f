// ACLs of a copy, and the order in which a copy gets what belongs to it.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyAcl : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        request.copyAcl = true;
    }
    static void answer(const std::string &function) {
        kit::Faults::add({.function = function, .result = 0, .times = 0, .answers = true});
    }
    std::string aclLine() const { return "Failed to copy ACL from [" + request.src + "] to [" + request.dst + "]"; }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyAcl, kDoors, doorName);

TEST_P(FileCopyAcl, BothKindsAreCopied) {
    answer("VEXOACLCopy");
    answer("VEXOACLArchiveCopy");
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, callsOf("VEXOACLCopy", request.src));
    EXPECT_EQ(1, callsOf("VEXOACLArchiveCopy", request.src));
    EXPECT_LT(placeOf("VEXOACLCopy", request.src), placeOf("VEXOACLArchiveCopy", request.src));
    expectNoErrorLogged(source());
}

TEST_P(FileCopyAcl, NotUnlessAsked) {
    request.copyAcl = false;
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLArchiveCopy"));
}

TEST_P(FileCopyAcl, FirstThatFailsIsLoggedAndTheSecondNotTried) {
    kit::Faults::failAlways("VEXOACLCopy", EOPNOTSUPP);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLArchiveCopy"));
    expectLogged(source(), LOG_ERR, aclLine());
    expectCopied();
    expectNotReported();
}

TEST_P(FileCopyAcl, SecondThatFailsIsLoggedOnce) {
    answer("VEXOACLCopy");
    kit::Faults::failAlways("VEXOACLArchiveCopy", EOPNOTSUPP);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, kit::Faults::count("VEXOACLArchiveCopy"));
    expectLogged(source(), LOG_ERR, aclLine());
    expectCopied();
    expectNotReported();
}

TEST_P(FileCopyAcl, GoToTheNewPlaceOfAConflict) {
    kit::writeFile(request.dst, "there");
    const std::string other = to + "/other";
    callbacks.rename = [&](const char *, char *out, int size) {
        std::snprintf(out, static_cast<size_t>(size), "%s", other.c_str());
        return 0;
    };
    kit::Faults::failAlways("VEXOACLCopy", EIO);
    EXPECT_EQ(0, copy());
    expectLogged(source(), LOG_ERR, "Failed to copy ACL from [" + request.src + "] to [" + other + "]");
}

TEST_P(FileCopyAcl, RenamedFileKeepsItsOwn) {
    request.move = true;
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, kit::Faults::count("VEXOACLCopy"));
}

TEST_P(FileCopyAcl, EverythingFollowsInItsOrder) {
    FILE_COPY_NEEDS_ROOT();
    answer("VEXOACLCopy");
    answer("VEXOACLArchiveCopy");
    answer("VEXOACLEnforceInherit");
    request.enforceInherit = true;
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const std::pair<std::string, std::string> order[] = {
        {"VEXOGetFSType", request.src},
        {"VEXOGetFSType", to},
        {"open", request.src},
        {"VLIBCFileFStat", request.src},
        {"open", request.dst},
        {"fstat", request.dst},
        {"write", request.dst},
        {"fchown", request.dst},
        {"VLIBCFileUTime", request.dst},
        {"VEXOACLCopy", request.src},
        {"VEXOACLArchiveCopy", request.src},
        {"VEXOACLEnforceInherit", request.dst},
    };
    long last = -1;
    for (const auto &[function, path] : order) {
        const long place = placeOf(function, path);
        EXPECT_GT(place, last) << function << "(" << path << ")";
        last = place;
    }
    for (const char *function : {"fchown", "VLIBCFileUTime", "VEXOACLEnforceInherit"}) {
        EXPECT_EQ(1, callsOf(function, request.dst)) << function;
    }
}

TEST_P(FileCopyAcl, ALargeFilesRoomIsLookedAtBeforeTheData) {
    kit::writeSparse(request.src, (128 << 20) + 1, {{0, 4096}});
    kit::Faults::failAlways("VEXOACLCopy", EIO);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_LT(placeOf("open", request.dst), placeOf("fstatfs", request.dst));
    EXPECT_LT(placeOf("fstatfs", request.dst), placeOf("write", request.dst));
}

} // namespace
} // namespace file_copy
