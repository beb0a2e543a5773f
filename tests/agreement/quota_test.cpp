// What a plan tells of room where a quota leaves less than the volume has: the same as the run is told by the kernel.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tools/engine/plan/plan.h"
#include "tools/engine/transfer/transfer.h"

#include <cstdlib>
#include <grp.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;
constexpr uint32_t kQuota = 0x2400;

using Failures = std::map<std::string, uint32_t>; // codes, by the name of the entry

class QuotaForecast : public engine::PlanObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(const engine::PlannedEntry &planned) override {
        renamed = renamed || planned.deed == engine::Deed::rename;
        if (planned.deed == engine::Deed::fail) {
            failures[planned.source.substr(planned.source.rfind('/') + 1)] = planned.problem->code;
        }
    }
    Failures failures = {};
    bool renamed = false;
};

class QuotaReceipt : public engine::TransferObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(engine::EntryKind, const std::string &source, const engine::Outcome &outcome) override {
        if (outcome.status == engine::Status::failed) {
            failures[source.substr(source.rfind('/') + 1)] = outcome.problem->code;
        }
    }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }
    Failures failures = {};
};

class PlanUnderQuota : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to mount volumes");
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((scratch / "tree").c_str(), 0755));
    }
    static bool run(const std::string &command) {
        const std::string all = "PATH=$PATH:/usr/sbin:/sbin; " + command;
        return std::system(all.c_str()) == 0; // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    }
    static bool set(const std::string &limit, const std::string &volume) {
        return run("setquota " + limit + " " + volume);
    }
    // Of a copy of the tree by a user into a directory of the user's own, which both have to fail in this way.
    void expect(const kit::Volume &volume, uid_t user, const Failures &expected,
                const std::string &directory = ".") const {
        EXPECT_TRUE(kit::holdsInChild([&] {
            const std::string to = volume / (directory + "/" + std::to_string(user));
            ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
            ASSERT_EQ(0, ::chown(to.c_str(), user, user));
            ASSERT_EQ(0, ::setgroups(0, nullptr));
            ASSERT_EQ(0, ::setresgid(user, user, user));
            ASSERT_EQ(0, ::setresuid(user, user, user));
            const engine::TransferOptions options{.trees = true};
            QuotaForecast forecast;
            engine::Planner(engine::PlanOptions{.transfer = options}, forecast).run(scratch / "tree", to + "/tree");
            EXPECT_EQ(expected, forecast.failures);
            QuotaReceipt receipt;
            engine::Transfer(options, receipt).run(scratch / "tree", to + "/tree");
            EXPECT_EQ(expected, receipt.failures);
        }));
    }
};

#define KIT_SET_QUOTA(limit, volume)                                                                                   \
    if (!set(limit, (volume).path())) {                                                                                \
        GTEST_SKIP() << "quota cannot be set: setquota " << (limit);                                                   \
    }

TEST_F(PlanUnderQuota, BytesOfAUser) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "usrquota"));
    KIT_SET_QUOTA("-u 65534 0 1024 0 0", volume);
    kit::writeFile(scratch / "tree/large", kit::pattern(3 << 20));
    kit::writeFile(scratch / "tree/small", "fits");
    expect(volume, kNobody, {{"large", kQuota}});
    expect(volume, 0, {});
}

TEST_F(PlanUnderQuota, BytesOfAGroup) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "grpquota"));
    KIT_SET_QUOTA("-g 65534 0 1024 0 0", volume);
    kit::writeFile(scratch / "tree/large", kit::pattern(3 << 20));
    kit::writeFile(scratch / "tree/small", "fits");
    expect(volume, kNobody, {{"large", kQuota}});
}

// A directory of the user's own, the tree and two files.
TEST_F(PlanUnderQuota, NumberOfFiles) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "usrquota"));
    KIT_SET_QUOTA("-u 65534 0 0 0 4", volume);
    for (const char *const name : {"tree/one", "tree/two"}) {
        kit::writeFile(scratch / name, name);
    }
    expect(volume, kNobody, {});
}

TEST_F(PlanUnderQuota, TooManyFiles) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "usrquota"));
    KIT_SET_QUOTA("-u 65534 0 0 0 2", volume);
    kit::writeFile(scratch / "tree/one", "one too many");
    expect(volume, kNobody, {{"one", kQuota}});
}

// Of a directory on ext4 it binds everybody but root, and nobody elsewhere on the volume.
TEST_F(PlanUnderQuota, BytesOfAProject) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20,
                                          "-q -O quota,project -E quotatype=usrquota:grpquota:prjquota", "prjquota"));
    ASSERT_EQ(0, ::mkdir((volume / "project").c_str(), 0755));
    ASSERT_TRUE(run("chattr +P -p 77 " + (volume / "project")));
    KIT_SET_QUOTA("-P 77 0 1024 0 0", volume);
    kit::writeFile(scratch / "tree/large", kit::pattern(3 << 20));
    kit::writeFile(scratch / "tree/small", "fits");
    expect(volume, kNobody, {{"large", kQuota}}, "project");
    expect(volume, kNobody, {});
    expect(volume, 0, {}, "project");
}

TEST_F(PlanUnderQuota, FilesOfAProject) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20,
                                          "-q -O quota,project -E quotatype=usrquota:grpquota:prjquota", "prjquota"));
    ASSERT_EQ(0, ::mkdir((volume / "project").c_str(), 0755));
    ASSERT_TRUE(run("chattr +P -p 77 " + (volume / "project")));
    KIT_SET_QUOTA("-P 77 0 0 0 3", volume);
    kit::writeFile(scratch / "tree/one", "one too many");
    expect(volume, kNobody, {{"one", kQuota}}, "project");
}

// XFS says that the volume is full, to root as well.
TEST_F(PlanUnderQuota, BytesOfAProjectOnXfs) {
    constexpr uint32_t full = 0x2900;
    KIT_REQUIRE(volume, kit::Volume::loop("xfs", 400 << 20, {}, "prjquota"));
    ASSERT_EQ(0, ::mkdir((volume / "project").c_str(), 0755));
    ASSERT_TRUE(run("xfs_io -c 'chproj 77' -c 'chattr +P' " + (volume / "project")));
    if (!run("xfs_quota -x -c 'limit -p bhard=1m 77' " + volume.path())) {
        GTEST_SKIP() << "quota cannot be set: xfs_quota";
    }
    kit::writeFile(scratch / "tree/large", kit::pattern(3 << 20));
    kit::writeFile(scratch / "tree/small", "fits");
    expect(volume, kNobody, {{"large", full}}, "project");
    expect(volume, 0, {{"large", full}}, "project");
    expect(volume, 0, {});
}

// What is not of the project is copied into its directory, and removed where it was.
TEST_F(PlanUnderQuota, MoveIntoAProject) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20,
                                          "-q -O quota,project -E quotatype=usrquota:grpquota:prjquota", "prjquota"));
    ASSERT_EQ(0, ::mkdir((volume / "project").c_str(), 0755));
    ASSERT_TRUE(run("chattr +P -p 77 " + (volume / "project")));
    const engine::TransferOptions options{.operation = engine::Operation::move, .trees = true};
    for (const char *const name : {"file", "tree"}) {
        const std::string source = volume / name, copy = volume / (std::string("project/") + name);
        if (name[0] == 't') {
            ASSERT_EQ(0, ::mkdir(source.c_str(), 0755));
            kit::writeFile(source + "/inner", "inner");
        } else {
            kit::writeFile(source, "content");
        }
        QuotaForecast forecast;
        engine::Planner(engine::PlanOptions{.transfer = options}, forecast).run(source, copy);
        EXPECT_FALSE(forecast.renamed) << name;
        QuotaReceipt receipt;
        engine::Transfer(options, receipt).run(source, copy);
        EXPECT_EQ(Failures(), receipt.failures);
        EXPECT_TRUE(kit::exists(copy));
        EXPECT_FALSE(kit::exists(source));
        // Within the project it is renamed.
        QuotaForecast again;
        engine::Planner(engine::PlanOptions{.transfer = options}, again).run(copy, copy + "2");
        EXPECT_TRUE(again.renamed) << name;
    }
}

} // namespace
