// A stream file in the scratch directory, on a descriptor of the test's own.
#pragma once

#include "ea/ea.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"

#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

class StreamFile : public kit::Behaviour {
  protected:
    void SetUp() override {
        path = scratch / "file@VexoEAStream";
        fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        kit::Behaviour::SetUp();
    }
    void TearDown() override {
        kit::Faults::reset();
        EXPECT_GE(::fcntl(fd, F_GETFD), 0) << "the descriptor is the caller's";
        kit::Behaviour::TearDown();
        ::close(fd);
    }

    void put(const std::string &content) { kit::writeFile(path, content, 0600); }
    std::string content() const { return kit::readFile(path); }

    VEXOEAS *open(int lockType = F_WRLCK) {
        VEXOEAS *eas = VEXOEASOpen(fd, lockType);
        EXPECT_NE(nullptr, eas) << std::hex << VLIBCErrGet();
        lastOpened = eas;
        return eas;
    }
    static int write(VEXOEAS *eas, const std::string &name, const std::string &value, uint32_t offset = 0,
                     int flags = 1) {
        return VEXOEASWrite(eas, name.c_str(), value.data(), static_cast<uint32_t>(value.size()), offset, flags);
    }
    static std::string read(VEXOEAS *eas, const std::string &name) {
        char none = 0;
        const int length = VEXOEASRead(eas, name.c_str(), &none, 0, 0);
        if (length < 0) {
            return "(none)";
        }
        std::string value(static_cast<size_t>(length), '?');
        EXPECT_EQ(length, VEXOEASRead(eas, name.c_str(), value.data(), static_cast<uint32_t>(length) + 10, 0));
        return value;
    }
    // What a fresh handle makes of the file.
    stream::Attributes attributes() {
        stream::Attributes all;
        VEXOEAS *eas = open(F_RDLCK);
        VLIBCSzList *names = VLIBCSzListAlloc(4);
        EXPECT_EQ(eas->header.attrCount, VEXOEASEnum(eas, &names));
        for (int at = 0; at < names->count; ++at) {
            all.emplace_back(VLIBCSzListGet(names, at), read(eas, VLIBCSzListGet(names, at)));
        }
        VLIBCSzListFree(names);
        EXPECT_EQ(0, VEXOEASClose(eas));
        return all;
    }

    std::string path;
    int fd = -1;
    VEXOEAS *lastOpened = nullptr; // so that memcheck finds it in a child, too, which ends with it open
};
