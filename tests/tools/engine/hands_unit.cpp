// How many processes share the work unless somebody says it, on machines whose disks are told by a directory of files.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tools/engine/workers/disks.h"
#include "tools/engine/workers/hands.h"

#include <algorithm>
#include <filesystem>
#include <sched.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace hands_tests {
namespace {

using engine::Disks;
using engine::disks_below;
using engine::usual_hands;
using Names = std::set<std::string>;

int processors() {
    cpu_set_t set;
    return ::sched_getaffinity(0, sizeof set, &set) == 0 ? std::min(CPU_COUNT(&set), 8) : 1;
}

class Machine : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        std::filesystem::create_directories(tree);
        for (int number = 0; number < 300; ++number) {
            kit::writeFile(tree + "/" + std::to_string(number), "");
        }
    }
    // A device, by its directory: "sda" or, a partition, "sda/sda1".
    void makeDevice(const std::string &name, bool turns = false) const {
        const std::string place = device(name);
        std::filesystem::create_directories(place);
        if (name.find('/') != std::string::npos) {
            kit::writeFile(place + "/partition", "1\n");
            return;
        }
        std::filesystem::create_directories(place + "/queue");
        kit::writeFile(place + "/queue/rotational", turns ? "1\n" : "0\n");
    }
    void putUpon(const std::string &upper, const std::string &lower) const {
        std::filesystem::create_directories(device(upper) + "/slaves");
        std::filesystem::create_symlink(device(lower), device(upper) + "/slaves/" + lower.substr(lower.rfind('/') + 1));
    }
    // The volume of the scratch directory lies there.
    void lieOn(const std::string &name) const {
        struct stat found {};
        ASSERT_EQ(0, ::stat(scratch.path().c_str(), &found));
        std::filesystem::create_directories(sysfs + "/dev/block");
        std::filesystem::create_symlink(device(name), sysfs + "/dev/block/" + std::to_string(major(found.st_dev)) +
                                                          ":" + std::to_string(minor(found.st_dev)));
    }
    void hangOn(const std::string &name, const std::string &bus) const {
        std::filesystem::create_directories(device(name) + "/device");
        std::filesystem::create_directories(sysfs + "/bus/" + bus);
        std::filesystem::create_symlink(sysfs + "/bus/" + bus, device(name) + "/device/subsystem");
    }
    std::string device(const std::string &name) const { return sysfs + "/devices/" + name; }
    int hands(const std::string &destination = "") const { return usual_hands({tree}, destination, sysfs); }

    const std::string tree = scratch / "tree", sysfs = scratch / "sys";
};

TEST_F(Machine, VolumeWithoutADiskHasNone) {
    EXPECT_EQ(Disks(), disks_below(tree, sysfs));
    EXPECT_EQ(processors(), hands());
}

TEST_F(Machine, DiskIsFoundBelowItsPartition) {
    makeDevice("sda", true);
    makeDevice("sda/sda1");
    lieOn("sda/sda1");
    EXPECT_EQ((Disks{Names{"sda"}, true}), disks_below(tree, sysfs));
    EXPECT_EQ(1, hands());
}

TEST_F(Machine, DiskThatDoesNotTurnServesAll) {
    makeDevice("nvme0n1");
    makeDevice("nvme0n1/nvme0n1p3");
    lieOn("nvme0n1/nvme0n1p3");
    EXPECT_EQ((Disks{Names{"nvme0n1"}, false}), disks_below(tree, sysfs));
    EXPECT_EQ(processors(), hands());
    EXPECT_EQ(processors(), hands(scratch / "not/there/yet"));
}

// A mapped device upon an array upon partitions.
TEST_F(Machine, DisksAreFoundBelowLayers) {
    makeDevice("dm-0");
    makeDevice("md2");
    for (const std::string disk : {"sda", "sdb"}) {
        makeDevice(disk, true);
        makeDevice(disk + "/" + disk + "5");
        putUpon("md2", disk + "/" + disk + "5");
    }
    putUpon("dm-0", "md2");
    lieOn("dm-0");
    EXPECT_EQ((Disks{Names{"sda", "sdb"}, true}), disks_below(tree, sysfs));
    // Several disks that hold both sides.
    EXPECT_EQ(processors(), hands());
    EXPECT_EQ(processors(), hands(scratch / "copy"));
}

TEST_F(Machine, ArrayOfOneDiskIsThatDisk) {
    makeDevice("md0");
    makeDevice("sda", true);
    putUpon("md0", "sda");
    lieOn("md0");
    EXPECT_EQ((Disks{Names{"sda"}, true}), disks_below(tree, sysfs));
    EXPECT_EQ(1, hands());
}

// An array at one side alone: /proc is a volume without a disk.
TEST_F(Machine, ArrayThatHoldsOneSideIsNoHelp) {
    makeDevice("md0");
    for (const char *disk : {"sda", "sdb"}) {
        makeDevice(disk, true);
        putUpon("md0", disk);
    }
    lieOn("md0");
    EXPECT_EQ(1, hands("/proc"));
}

// Its kernel calls each such disk one that turns.
TEST_F(Machine, DiskOfAVirtualMachineSaysNothingOfTurning) {
    makeDevice("vda", true);
    makeDevice("vda/vda1");
    hangOn("vda", "virtio");
    lieOn("vda/vda1");
    EXPECT_EQ((Disks{Names{"vda"}, false}), disks_below(tree, sysfs));
    EXPECT_EQ(processors(), hands());
}

TEST_F(Machine, DiskOnAnotherBusIsBelieved) {
    makeDevice("sda", true);
    hangOn("sda", "scsi");
    lieOn("sda");
    EXPECT_EQ(1, hands());
}

// A file that serves as a disk is none: it lies on one, which here holds the volume of the scratch directory.
TEST_F(Machine, DiskIsFoundBelowAFileThatServesAsOne) {
    kit::writeFile(scratch / "image", "");
    makeDevice("sda", true);
    makeDevice("loop7");
    lieOn("sda");
    std::filesystem::create_directories(device("loop7") + "/loop");
    kit::writeFile(device("loop7") + "/loop/backing_file", (scratch / "image") + "\n");
    struct stat other {};
    ASSERT_EQ(0, ::stat("/proc", &other));
    std::filesystem::create_symlink(device("loop7"), sysfs + "/dev/block/" + std::to_string(major(other.st_dev)) + ":" +
                                                         std::to_string(minor(other.st_dev)));
    EXPECT_EQ((Disks{Names{"sda"}, true}), disks_below("/proc", sysfs));
}

TEST_F(Machine, DevicesInARingEnd) {
    makeDevice("dm-0");
    makeDevice("dm-1");
    putUpon("dm-0", "dm-1");
    putUpon("dm-1", "dm-0");
    lieOn("dm-0");
    EXPECT_EQ(Disks(), disks_below(tree, sysfs));
}

TEST_F(Machine, LittleWorkIsForOne) {
    const std::string few = scratch / "few";
    std::filesystem::create_directories(few + "/in");
    for (int number = 0; number < 150; ++number) {
        kit::writeFile(few + "/in/" + std::to_string(number), "");
    }
    EXPECT_EQ(1, usual_hands({few}, "", sysfs));
    EXPECT_EQ(1, usual_hands({few + "/in/3", scratch / "not there"}, "", sysfs));
    EXPECT_EQ(processors(), usual_hands({few, few}, "", sysfs)); // together they are many
}

// A few files that hold much; of one alone nothing can be shared.
TEST_F(Machine, MuchToReadIsForSeveral) {
    const std::string few = scratch / "few", one = scratch / "one";
    std::filesystem::create_directories(few + "/in");
    std::filesystem::create_directories(one);
    kit::writeFile(one + "/small", "small");
    kit::writeSparse(one + "/large", off_t{1} << 30, {});
    EXPECT_EQ(1, usual_hands({one}, "", sysfs));
    for (int number = 0; number < 20; ++number) {
        kit::writeSparse(few + "/in/" + std::to_string(number), off_t{8} << 20, {});
    }
    EXPECT_EQ(processors(), usual_hands({few}, "", sysfs));
    EXPECT_EQ(processors(), usual_hands({one, few}, "", sysfs));
}

TEST_F(Machine, ProcessorsAreThoseThatThisProcessMayUse) {
    EXPECT_TRUE(kit::holdsInChild([this] {
        cpu_set_t set, one;
        CPU_ZERO(&one);
        ASSERT_EQ(0, ::sched_getaffinity(0, sizeof set, &set));
        size_t first = 0;
        while (!CPU_ISSET(first, &set)) {
            ++first;
        }
        CPU_SET(first, &one);
        ASSERT_EQ(0, ::sched_setaffinity(0, sizeof one, &one));
        EXPECT_EQ(1, hands());
    }));
}

} // namespace
} // namespace hands_tests
