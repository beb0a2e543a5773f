// What the copy of what belongs to a file says and leaves as last error when a step of it fails: every log line, every
// code.
#include "tests/ea/store_copy.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;

// The failing call, and what comes of it. In paths and lines "<S>" is the source, "<D>" the destination; ".ad" behind
// them their "._" files, ".res", ".ea" and ".own" their resource files, attribute streams and own directories.
struct Row {
    const char *function;
    int error;
    const char *where;
    int skip;
    uint32_t code;
    std::vector<std::string> lines; // before the one that a failing copy ends with
};

class CopyReports : public store_copy::StoreCopy {
  protected:
    std::string fill(std::string text) const {
        for (const auto &[mark, path] : {std::pair<std::string, std::string>{"<S>", from.path()},
                                         {"<S.ad>", from.dotFile()},
                                         {"<S.res>", from.resource()},
                                         {"<S.ea>", from.stream()},
                                         {"<S.own>", from.own()},
                                         {"<D>", to.path()},
                                         {"<D.ad>", to.dotFile()},
                                         {"<D.res>", to.resource()},
                                         {"<D.ea>", to.stream()},
                                         {"<D.own>", to.own()}}) {
            for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
                text.replace(at, mark.size(), path);
            }
        }
        return text;
    }
    std::vector<std::string> fill(std::vector<std::string> lines) const {
        for (std::string &line : lines) {
            line = fill(line);
        }
        return lines;
    }
    static std::string hex(uint32_t code) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%04X", code);
        return text;
    }
    std::string failure(uint32_t code, int error) const {
        return fill("[" + hex(code) + "]EACopy fail: from [<S>] to [<D>] ") + std::strerror(error);
    }
    // Runs each row on new volumes: the copy fails, and the source keeps all it has.
    void expectFailures(int fromKind, int toKind, const std::vector<Row> &rows, bool move = true) {
        for (const Row &row : rows) {
            SCOPED_TRACE(std::string(name(fromKind)) + " to " + name(toKind) + ", " + row.function + " number " +
                         std::to_string(row.skip) + " of " + row.where);
            prepare(fromKind, toKind, some(), newRoot());
            kit::Faults::add(
                {.function = row.function, .error = row.error, .path = fill(row.where), .skip = row.skip, .times = 0});
            VLIBCErrSetEx(0, "", 0);
            EXPECT_EQ(-1, copy(move));
            EXPECT_EQ(hex(row.code), hex(VLIBCErrGet()));
            std::vector<std::string> expected = fill(row.lines);
            expected.push_back(failure(row.code, row.error));
            EXPECT_EQ(expected, reports());
            kit::Faults::reset();
            EXPECT_EQ(some(), read(from, fromKind));
        }
    }
};

TEST_F(CopyReports, AppleDoubleToAppleDouble) {
    const std::string cp = "(EACopyADFStoADFS) Failed to cp -f <S.ad>.\n";
    expectFailures(
        kAppleDouble, kAppleDouble,
        {
            {"open", EACCES, "<S.ad>", 0, 0x0900, {cp}},
            {"open", ENOSPC, "<D.ad>", 0, 0x0900, {cp}},
            {"write", ENOSPC, "<D.ad>", 0, 0x2900, {cp}},
            {"unlink", EACCES, "<S.ad>", 0, 0x2A00, {"[0x2A00]Failed to remove [<S.ad>]. Permission denied"}},
        });
}

TEST_F(CopyReports, AppleDoubleToEaDirectory) {
    const std::string unopened = "failed to open <S.ad>, reason=Permission denied.\n";
    const std::string unmade = "(EACopyAdoubleV2) failed to open <D.res>, reason=Permission denied.\n";
    const std::string unread = "failed to read <S.ad>, reason=Input/output error.\n";
    const std::string noFork = "(EACopyAdoubleV2) failed to read, reason=Input/output error.\n";
    const std::string full = "(EACopyAdoubleV2) failed to write <D.res>, reason=No space left on device.\n";
    const std::string uncut = "(EACopyAdoubleV2) failed to write to <D.res>, reason=Input/output error.\n";
    const std::string copied = "Failed to copy <S.ad> to <D.res>, reason = ";
    expectFailures(kAppleDouble, kEaDirectory,
                   {
                       {"mkdir", ENOSPC, "/to/@eaDir", 0, 0x3C00, {}},
                       {"open", EACCES, "<S.ad>", 0, 0x0900, {unopened, copied + "-2.\n"}},
                       {"open", EACCES, "<D.res>", 0, 0x0900, {unmade, copied + "-2.\n"}},
                       {"pread", EIO, "<S.ad>", 0, 0x0A00, {unread, copied + "-1.\n"}},
                       {"pread", EIO, "<S.ad>", 1, 0x0A00, {"(EACopyAdoubleV2) " + unread, copied + "-1.\n"}},
                       {"pread", EIO, "<S.ad>", 2, 0x0A00, {"(EACopyAdoubleV2) " + unread, copied + "-1.\n"}},
                       {"pread", EIO, "<S.ad>", 3, 0x0A00, {"(EACopyAdoubleV2) " + unread, copied + "-1.\n"}},
                       {"pread", EIO, "<S.ad>", 4, 0x0A00, {noFork, copied + "-1.\n"}},
                       {"pwrite", ENOSPC, "<D.res>", 1, 0x0B00, {full, copied + "-9.\n"}},
                       {"ftruncate", EIO, "<D.res>", 0, 0x0B00, {uncut, copied + "-5.\n"}},
                       {"open", EMFILE, "<S.ad>", 1, 0x0900, {}},
                       {"open", ENOSPC, "<D.ea>", 0, 0x0900, {}},
                       {"unlink", EACCES, "<S.ad>", 0, 0x2A00, {}},
                   });
}

TEST_F(CopyReports, AppleDoubleToFileEa) {
    const std::string unsynced = "[0x0B00]Failed ea sync [<S>]->[<D>]. Input/output error";
    expectFailures(kAppleDouble, kFileEa, {{"setxattr", EIO, "<D>", 1, 0x0B00, {unsynced}}}, false);
}

TEST_F(CopyReports, AppleDoubleToNative) {
    expectFailures(kAppleDouble, kNative,
                   {
                       {"open", EACCES, "<S.ad>", 0, 0x0900, {}},
                       {"open", EACCES, "<S.ad>", 1, 0x0900, {}},
                       {"pread", EIO, "<S.ad>", 0, 0x0A00, {}}, // an attribute
                       {"pread", EIO, "<S.ad>", 1, 0x0A00, {}}, // the header
                       {"pread", EIO, "<S.ad>", 2, 0x0A00, {}}, // its entries
                       {"pread", EIO, "<S.ad>", 3, 0x0A00, {}}, // the fork
                       {"pread", EIO, "<S.ad>", 4, 0x0A00, {}}, // Finder Info
                       {"unlink", EACCES, "<S.ad>", 0, 0x2A00, {}},
                   });
}

TEST_F(CopyReports, NativeToStreams) {
    const std::string unlisted = "[0x2A00]Fail to get EA(<S>). Input/output error";
    const std::string noInfo = "[0x0A00]Fail to get EA(<S>, com.apple.FinderInfo). Input/output error";
    const std::string noFork = "[0x0A00]Fail to get EA(<S>, com.apple.ResourceFork). Too many open files";
    const std::string noResource = "[0x0900]Fail to open vexoresource(<D>). Permission denied";
    const std::string noStream = "[0x0900]Fail to open eastream(<D>). Permission denied";
    const std::string locked = "[0x0900]Fail to open eastream(<D>). Resource temporarily unavailable";
    const std::string unwritten = "[0x0B00]Fail to write eastream(<D>). Input/output error";
    for (const int toKind : {kAppleDouble, kEaDirectory, kFileEa}) {
        const bool inOneFile = toKind == kAppleDouble;
        const char *resource = inOneFile ? "<D.ad>" : "<D.res>";
        const char *stream = inOneFile ? "<D.ad>" : "<D.ea>";
        expectFailures(kNative, toKind,
                       {
                           {"listxattr", EIO, "<S>", 0, 0x2A00, {unlisted}},
                           {"getxattr", EIO, "<S>", 0, 0x0A00, {noInfo}},
                           {"open", EMFILE, "rsrc", 0, 0x0A00, {noFork}},
                           {"open", EACCES, resource, 0, 0x0900, {noResource}},
                           {"pwrite", ENOSPC, resource, 0, 0x0B00, {}},
                           {"pwrite", ENOSPC, resource, 1, 0x0B00, {}},
                           {"pwrite", ENOSPC, resource, 2, 0x0B00, {}},
                           {"open", EACCES, stream, inOneFile ? 2 : 0, 0x0900, {noStream}},
                           {"fcntl", EAGAIN, stream, 0, 0x0900, {locked}},
                           {"write", EIO, stream, inOneFile ? 1 : 0, 0x0B00, {unwritten}},
                       });
    }
}

TEST_F(CopyReports, NativeToNative) {
    const std::string noFork = "[0x0A00]Fail to get EA(<S>, com.apple.ResourceFork). Too many open files";
    expectFailures(kNative, kNative,
                   {
                       {"listxattr", EIO, "<S>", 0, 0x2A00, {}},
                       {"setxattr", ENOSPC, "<D>", 0, 0x0B00, {}},
                       {"open", EMFILE, "from/f/rsrc", 0, 0x0A00, {noFork}},
                   });
}

TEST_F(CopyReports, EaDirectoryToAppleDouble) {
    const std::string appended = "Failed to copy <S> to <D.ad>, reason = -1.";
    expectFailures(kEaDirectory, kAppleDouble,
                   {
                       {"open", EMFILE, "<S.ea>", 0, 0x0900, {appended}},
                       {"open", EMFILE, "<D.ad>", 1, 0x0900, {appended}},
                   });
}

TEST_F(CopyReports, EaDirectoryToEaDirectory) {
    const std::string cp = "[0x0900]Failed to cp -f <S.res> <D.res>. Permission denied";
    expectFailures(kEaDirectory, kEaDirectory, {{"open", EACCES, "<S.res>", 0, 0x0900, {cp}}});
    expectFailures(kEaDirectory, kEaDirectory, {{"fchmod", EIO, "<D.res>", 0, 0x2A00, {}}}, false);
}

TEST_F(CopyReports, EaDirectoryToFileEa) {
    const std::string unopened = "failed to open <S.res>, reason=Permission denied.\n";
    const std::string copied = "Failed to copy <S.res> to <D.res>, reason = -2.\n";
    const std::string removed = "[0x2A00]Failed to remove [<S.res>]. Permission denied";
    const std::string unsynced = "[0x0B00]Failed file sync [<S>]->[<D>]. Input/output error";
    expectFailures(kEaDirectory, kFileEa,
                   {
                       {"open", EACCES, "<S.res>", 0, 0x0900, {unopened, copied}},
                       {"unlink", EACCES, "<S.res>", 0, 0x2A00, {removed}},
                   });
    expectFailures(kEaDirectory, kFileEa, {{"setxattr", EIO, "<D>", 0, 0x0B00, {unsynced}}}, false);
}

TEST_F(CopyReports, EaDirectoryToNative) {
    const std::string unopened = "[0x0900]Failed to cp [<S>]->[<D>]. Too many open files";
    const std::string unread = "[0x0A00]Failed to cp [<S>]->[<D>]. Input/output error";
    expectFailures(kEaDirectory, kNative,
                   {
                       {"open", EMFILE, "<S.ea>", 0, 0x0900, {unopened}},
                       {"pread", EIO, "<S.ea>", 0, 0x0A00, {unread}},
                   },
                   false);
}

TEST_F(CopyReports, FileEaToEveryKind) {
    const std::string unsynced = "[0x0A00]Failed file sync [<S>]->[<D>]. Input/output error";
    for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        expectFailures(kFileEa, toKind, {{"getxattr", EIO, "<S>", 0, 0x0A00, {unsynced}}});
    }
}

} // namespace
