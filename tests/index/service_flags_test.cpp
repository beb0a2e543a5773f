// Which services the appliance has, as each thread finds out once.
#include "index/index.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/private_root.h"

#include <array>
#include <cerrno>
#include <latch>
#include <thread>

namespace {

constexpr char kFile[] = "/etc.defaults/vexoinfo.conf";

struct ServiceRow {
    const char *key;
    int (*isSupported)();
};
// In the order in which they are all asked for.
constexpr std::array<ServiceRow, 5> kServices = {{
    {"supportphoto", VEXOPhotoServiceIsSupport},
    {"supportmediaservice", VEXOMediaServiceIsSupport},
    {"supportreelhall", VEXOVideoServiceIsSupport},
    {"supportphotopersonal", VEXOPPhotoServiceIsSupport},
    {"supportfileindex", VEXOFileIndexIsSupport},
}};

// What a function answers in a thread that has not asked yet.
template <typename Function>
int askedAnew(Function function) {
    int answer = -1;
    std::thread([&] { answer = function(); }).join();
    return answer;
}

std::string line(const std::string &key, const std::string &value) {
    return key + "=\"" + value + "\"\n";
}

class ServiceFlags : public kit::Behaviour {};

TEST_F(ServiceFlags, EachServiceHasItsKey) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    for (const ServiceRow &on : kServices) {
        root.put(kFile, line("unique", "appliance") + line(on.key, "yes"));
        for (const ServiceRow &asked : kServices) {
            EXPECT_EQ(asked.key == on.key ? 1 : 0, askedAnew(asked.isSupported)) << asked.key << " while " << on.key;
        }
    }
}

TEST_F(ServiceFlags, OnlyYesIsOnInAnyCase) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    for (const char *value : {"yes", "YES", "Yes", "yeS"}) {
        root.put(kFile, line("supportphoto", value));
        EXPECT_EQ(1, askedAnew(VEXOPhotoServiceIsSupport)) << value;
    }
    for (const char *value : {"no", "", "y", "ye", "yess", "true", "1", "on", " yes", "yes yes yes yes yes"}) {
        root.put(kFile, line("supportphoto", value));
        EXPECT_EQ(0, askedAnew(VEXOPhotoServiceIsSupport)) << value;
    }
    root.put(kFile, "supportphoto=yes\n");
    EXPECT_EQ(1, askedAnew(VEXOPhotoServiceIsSupport));
}

TEST_F(ServiceFlags, MissingFileOrKeyIsOff) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    for (const ServiceRow &service : kServices) {
        EXPECT_EQ(0, askedAnew(service.isSupported)) << service.key;
    }
    root.put(kFile, "");
    for (const ServiceRow &service : kServices) {
        EXPECT_EQ(0, askedAnew(service.isSupported)) << service.key;
    }
}

TEST_F(ServiceFlags, UnreadableFileIsOff) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put(kFile, line("supportphoto", "yes"));
    kit::Faults::fail("VLIBCFileGetKeyValue", EIO, kFile);
    EXPECT_EQ(0, askedAnew(VEXOPhotoServiceIsSupport));
}

TEST_F(ServiceFlags, AThreadKeepsItsAnswersAndAnotherSeesTheChange) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    for (const bool onFirst : {false, true}) {
        const auto write = [&](bool on) {
            std::string content;
            for (const ServiceRow &service : kServices) {
                content += line(service.key, on ? "yes" : "no");
            }
            root.put(kFile, content);
        };
        write(onFirst);
        std::latch asked(1);
        std::latch changed(1);
        std::array<int, 12> early{};
        const auto askAll = [](int *answers) {
            for (const ServiceRow &service : kServices) {
                *answers++ = service.isSupported();
            }
            *answers = VEXOIndexIsNeed();
        };
        std::thread thread([&] {
            askAll(early.data());
            asked.count_down();
            changed.wait();
            askAll(early.data() + 6);
        });
        asked.wait();
        write(!onFirst);
        std::array<int, 6> late{};
        std::thread([&] { askAll(late.data()); }).join();
        changed.count_down();
        thread.join();
        for (const int answer : early) {
            EXPECT_EQ(onFirst ? 1 : 0, answer);
        }
        for (const int answer : late) {
            EXPECT_EQ(onFirst ? 0 : 1, answer);
        }
    }
}

TEST_F(ServiceFlags, AbsenceIsKeptToo) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    std::thread([&] {
        EXPECT_EQ(0, VEXOPhotoServiceIsSupport());
        EXPECT_EQ(0, VEXOIndexIsNeed());
        root.put(kFile, line("supportphoto", "yes"));
        EXPECT_EQ(0, VEXOPhotoServiceIsSupport());
        EXPECT_EQ(0, VEXOIndexIsNeed());
    }).join();
    EXPECT_EQ(1, askedAnew(VEXOIndexIsNeed));
}

TEST_F(ServiceFlags, InitAsksForAllInOrder) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put(kFile, "");
    // At each look into the file, one service is on: the one whose turn it is.
    for (const ServiceRow &service : kServices) {
        kit::Faults::add({.function = "VLIBCFileGetKeyValue", .path = kFile, .before = [&root, &service] {
                              root.put(kFile, line(service.key, "yes"));
                          }});
    }
    std::thread([] {
        EXPECT_EQ(1, VEXOInitSupportValue());
        for (const ServiceRow &service : kServices) {
            EXPECT_EQ(1, service.isSupported()) << service.key;
        }
    }).join();
    EXPECT_EQ(5, kit::Faults::count("VLIBCFileGetKeyValue"));
}

TEST_F(ServiceFlags, InitAnswersForTheFileIndex) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put(kFile, line("supportphoto", "yes") + line("supportmediaservice", "yes"));
    EXPECT_EQ(0, askedAnew(VEXOInitSupportValue));
    root.put(kFile, line("supportfileindex", "yes"));
    EXPECT_EQ(1, askedAnew(VEXOInitSupportValue));
}

TEST_F(ServiceFlags, NothingIsReadTwice) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    kit::Faults::add({.function = "VLIBCFileGetKeyValue", .path = "none"}); // counts
    std::thread([] {
        EXPECT_EQ(0, VEXOVideoServiceIsSupport());
        EXPECT_EQ(1, kit::Faults::count("VLIBCFileGetKeyValue"));
        EXPECT_EQ(0, VEXOInitSupportValue());
        EXPECT_EQ(5, kit::Faults::count("VLIBCFileGetKeyValue"));
        EXPECT_EQ(0, VEXOInitSupportValue());
        EXPECT_EQ(0, VEXOIndexIsNeed());
        EXPECT_EQ(0, VEXOIndexIsNeed());
        EXPECT_EQ(5, kit::Faults::count("VLIBCFileGetKeyValue"));
    }).join();
}

TEST_F(ServiceFlags, IndexIsNeededByAnyServiceButTheFileIndex) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    for (unsigned on = 0; on < 1U << kServices.size(); ++on) {
        std::string content;
        for (size_t at = 0; at < kServices.size(); ++at) {
            content += line(kServices[at].key, (on >> at & 1U) != 0 ? "yes" : "no");
        }
        root.put(kFile, content);
        EXPECT_EQ((on & 0xfU) != 0 ? 1 : 0, askedAnew(VEXOIndexIsNeed)) << content;
    }
}

TEST_F(ServiceFlags, IndexIsNeedFillsEverySlot) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put(kFile, line("supportphoto", "yes") + line("supportfileindex", "yes"));
    std::thread([&] {
        EXPECT_EQ(1, VEXOIndexIsNeed());
        root.put(kFile, "");
        EXPECT_EQ(1, VEXOPhotoServiceIsSupport());
        EXPECT_EQ(1, VEXOFileIndexIsSupport());
    }).join();
}

} // namespace
