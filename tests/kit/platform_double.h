// Stands between the library under test and the platform's libraries: every platform call can be answered by the test
// (types by path, attributes that no volume here keeps), made to fail through a FaultRule with its name, and is counted
// and recorded; what the test leaves alone goes on to the platform for stock Linux.
#pragma once

#include "platform/core.h"
#include "platform/sdk.h"

#include <cstdint>
#include <string>

namespace kit {

class PlatformDouble {
  public:
    // The type code of everything under `path` (longest prefix wins); a negative code fails with `error` as errno.
    static void setType(const std::string &path, int code, int error = 0);
    // The share that holds everything under `path`, its record and whether it is encrypted.
    static void setShare(const std::string &path, const std::string &name, uint32_t status, bool encrypted);
    // The user whose home holds everything under `path`, and the home as the platform gives it.
    static void setHome(const std::string &path, const std::string &user, const std::string &home);
    // The mount path of everything under `path`.
    static void setMountPath(const std::string &path, const std::string &mountPath);
    // btrfs settings of everything under `path`.
    static void setCompression(const std::string &path, int setting);
    static void setNodatacow(const std::string &path, int setting);
    // Forgets all of it. Every test starts so.
    static void reset();
};

} // namespace kit
