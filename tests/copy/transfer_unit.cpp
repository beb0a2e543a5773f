// Where the descriptor copy of the copy engine takes its callbacks from.
#include "copy/engine/copy_file_fd.h"

#include "tests/kit/behaviour.h"

#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::string heard; // which callbacks were called

class CallbackSources : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        heard.clear();
        options.progress = [](int64_t, int64_t) { heard += "opt-progress "; };
        options.isCancel = [] {
            heard += "opt-cancel ";
            return 0;
        };
        ex.getReadSize = [](int64_t, int64_t) -> int64_t {
            heard += "ex-size ";
            return 100;
        };
        thr.progress = [](void *data, int64_t, int64_t) { heard += *static_cast<std::string *>(data) + "-progress "; };
        thr.isCancel = [](void *data) {
            heard += *static_cast<std::string *>(data) + "-cancel ";
            return 0;
        };
        thr.getReadSize = [](void *data, int64_t, int64_t) -> int64_t {
            heard += *static_cast<std::string *>(data) + "-size ";
            return 100;
        };
        thr.progressArg = thr.isCancelArg = thr.getReadSizeArg = &name;
    }

    // Copies three bytes and answers which callbacks were called.
    std::string copy(VEXOCopyOpt *opt, VEXOCopyArgsEx *exRecord, VEXOCopyTHRArgs *thrRecord,
                     VEXOCopyOptR *optR = nullptr) {
        kit::writeFile(scratch / "source", "abc");
        const int from = ::open((scratch / "source").c_str(), O_RDONLY | O_CLOEXEC);
        const int to = ::open((scratch / "destination").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        EXPECT_EQ(0, _VEXOCopyFileFd(from, to, 3, opt, optR, exRecord, thrRecord));
        ::close(from);
        ::close(to);
        EXPECT_EQ("abc", kit::readFile(scratch / "destination"));
        return heard;
    }

    VEXOCopyOpt options = {};
    VEXOCopyArgsEx ex = {};
    VEXOCopyTHRArgs thr = {};
    std::string name = "thr";
};

TEST_F(CallbackSources, OptionsAndExComeFirst) {
    EXPECT_EQ("opt-cancel ex-size opt-progress ", copy(&options, &ex, &thr));
}

TEST_F(CallbackSources, EmptyOptionsStillSilenceTheThreadRecord) {
    VEXOCopyOpt empty = {};
    EXPECT_EQ("thr-size ", copy(&empty, nullptr, &thr));
}

TEST_F(CallbackSources, ThreadRecordSpeaksWithoutOptions) {
    EXPECT_EQ("thr-cancel thr-size thr-progress ", copy(nullptr, nullptr, &thr));
}

TEST_F(CallbackSources, ExWithoutReadSizeLeavesItToTheThreadRecord) {
    VEXOCopyArgsEx empty = {};
    EXPECT_EQ("thr-cancel thr-size thr-progress ", copy(nullptr, &empty, &thr));
}

TEST_F(CallbackSources, ExReadSizeComesBeforeTheThreadRecords) {
    EXPECT_EQ("thr-cancel ex-size thr-progress ", copy(nullptr, &ex, &thr));
}

TEST_F(CallbackSources, NoRecordIsNeeded) {
    EXPECT_EQ("", copy(nullptr, nullptr, nullptr));
}

TEST_F(CallbackSources, RestrictedOptionsAreNotRead) {
    auto *unreadable = reinterpret_cast<VEXOCopyOptR *>(uintptr_t{8});
    EXPECT_EQ("", copy(nullptr, nullptr, nullptr, unreadable));
}

TEST_F(CallbackSources, CancelOfTheThreadRecordStops) {
    thr.isCancel = [](void *) { return 1; };
    kit::writeFile(scratch / "source", "abc");
    const int from = ::open((scratch / "source").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_FAILS(_VEXOCopyFileFd(from, from, 3, nullptr, nullptr, nullptr, &thr), 0xA600);
    ::close(from);
    EXPECT_EQ("abc", kit::readFile(scratch / "source"));
}

} // namespace
