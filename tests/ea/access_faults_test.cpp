// Whatever call fails, at whatever point: an operation on a file's metadata leaks nothing, puts back what it changed in
// the process and on the file, and leaves what it stores whole, old or new.
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

constexpr std::array kCalls = {
    "open",
    "read",
    "write",
    "lseek",
    "fstat",
    "stat",
    "fcntl",
    "chmod",
    "fchmod",
    "mkdir",
    "seteuid",
    "ftruncate",
    "getxattr",
    "setxattr",
    "listxattr",
    "unlink",
    "ioctl",
    "statfs",
    "VEXOGetFSType",
    "VEXOACLSetEADirACL",
    "VLIBCKernelAttrCall",
    "VLIBCKernelAttrFcntl",
    "VLIBCSzListPush",
};
constexpr uid_t kUser = 65534;

class AccessFaults : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, which the operations become";
        }
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    }
    // Runs `operation` as another user on what `prepare` made, once for each call it makes, that call failing; `check`
    // gets its result.
    void sweep(const std::function<void()> &prepare, const std::function<int()> &operation,
               const std::function<void(int)> &check) {
        int failures = 0;
        for (const char *call : kCalls) {
            for (int at = 0;; ++at) {
                SCOPED_TRACE(std::string(call) + " number " + std::to_string(at));
                prepare();
                ASSERT_EQ(0, ::seteuid(kUser));
                const kit::ProcessState before = kit::ProcessState::now();
                kit::Faults::reset();
                // Giving the user back cannot be made up for when it fails; becoming root fails here.
                kit::Faults::fail(call, EIO, {}, std::string(call) == "seteuid" ? at * 2 : at);
                const int result = operation();
                const bool failed = kit::Faults::count(call) > at;
                kit::Faults::reset();
                EXPECT_EQ(before, kit::ProcessState::now());
                ASSERT_EQ(0, ::seteuid(0));
                check(result);
                if (!failed || HasFailure()) {
                    break;
                }
                ++failures;
            }
        }
        EXPECT_GT(failures, 4); // the sweep did reach the operation
    }
    void makeFile() {
        (void)!std::system(("rm -rf '" + path + "' '" + (scratch / "@eaDir") + "'").c_str());
        kit::writeFile(path, "data");
        ASSERT_EQ(0, ::chown(path.c_str(), kUser, kUser));
    }
    void makeForked() {
        (void)!std::system(("rm -rf '" + path + "'").c_str());
        kit::ForkDouble::make(path, "old fork");
        ASSERT_EQ(0, ::chown(path.c_str(), kUser, kUser));
    }

    const std::string path = scratch / "file";
    const std::string resource = scratch / "@eaDir/file@VexoResource";
    const std::string info = kit::pattern(32);
};

TEST_F(AccessFaults, ReadingTheFork) {
    char buffer[16];
    sweep([&] { makeForked(); },
          [&] { return VEXOEAXattrGet(path.c_str(), "com.apple.ResourceFork", buffer, sizeof buffer); },
          [&](int result) {
              EXPECT_TRUE(result == 8 || result == -1) << result;
              EXPECT_EQ("old fork", kit::ForkDouble::read(path));
          });
}

TEST_F(AccessFaults, WritingTheFork) {
    sweep([&] { makeForked(); }, [&] { return VEXOEAXattrSet(path.c_str(), "com.apple.ResourceFork", "new", 3, 0); },
          [&](int result) { EXPECT_EQ(result == 0 ? "new" : "old fork", kit::ForkDouble::read(path)); });
}

TEST_F(AccessFaults, MakingTheDirectory) {
    sweep([&] { makeFile(); }, [&] { return VEXOEAMKDir(1, (scratch / "@eaDir/file").c_str()); },
          [&](int result) {
              if (result == 0) {
                  EXPECT_TRUE(S_ISDIR(kit::statOf(scratch / "@eaDir/file").st_mode));
              }
          });
}

TEST_F(AccessFaults, WritingFinderInfo) {
    const std::string whole =
        adouble_bytes::header({{9, 50, 32}, {2, 82, 0}}, 50, 0x00051607, 0x00020000, "Mac OS X        ") + info;
    sweep([&] { makeFile(); }, [&] { return VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()); },
          [&](int result) {
              EXPECT_EQ("data", kit::readFile(path));
              if (result == 0) {
                  EXPECT_EQ(whole, kit::readFile(resource));
              } else if (kit::exists(resource)) { // removing it failed, or looking whether to
                  EXPECT_EQ("", kit::readFile(resource));
              }
          });
}

TEST_F(AccessFaults, SynchronisingTheAttribute) {
    std::string old = adouble_bytes::metadata();
    old.replace(122, 32, kit::pattern(32, 5));
    std::string wanted = old;
    wanted.replace(122, 32, info);
    sweep(
        [&] {
            makeFile();
            kit::setAttribute(path, "user.netatalk.Metadata", old);
            ASSERT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
        },
        [&] { return VEXOEAFileEAFSFinfoEASync(path.c_str(), 0); },
        [&](int result) {
            const std::string now = kit::attribute(path, "user.netatalk.Metadata");
            EXPECT_TRUE(now == wanted || (result == -1 && now == old));
            EXPECT_EQ(result == 0 ? 8u : 0u, kit::attribute(path, "user.vexo.filea.flushtime").size());
        });
}

} // namespace
