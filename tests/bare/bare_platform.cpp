// As much of a platform as the functions under test call: a last error, one type for every volume, no ACLs. It defines
// no hooks.
#include "tests/bare/bare_platform.h"

#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"

namespace bare {
int volumeType = 1;
}

namespace {
uint32_t lastError = 0;
const char *lastFile = "";
uint32_t lastLine = 0;
} // namespace

void VLIBCErrSetEx(uint32_t code, const char *file, uint32_t line) {
    lastError = code;
    lastFile = file;
    lastLine = line;
}
uint32_t VLIBCErrGet(void) {
    return lastError;
}
const char *VLIBCErrorGetFile(void) {
    return lastFile;
}
uint32_t VLIBCErrorGetLine(void) {
    return lastLine;
}
int VEXOGetFSType(const char *, int) {
    return bare::volumeType;
}
int VEXOACLSetEADirACL(const char *) {
    return -1;
}
