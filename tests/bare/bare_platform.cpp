// As much of a platform as the functions under test call: a last error, one type for every volume, no ACLs. It defines
// none of the optional functions.
#include "tests/bare/bare_platform.h"

#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace bare {
int volumeType = 1;
std::vector<std::string> calls;
} // namespace bare

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

// What a tree copy calls beside those.
int VLIBCFileStat(const char *path, uint32_t, VLIBCStat *out) {
    *out = {};
    return ::stat(path, &out->st);
}
int VLIBCFileLStat(const char *path, uint32_t, VLIBCStat *out) {
    *out = {};
    return ::lstat(path, &out->st);
}
int VLIBCFileFStat(int fd, uint32_t, VLIBCStat *out, int) {
    *out = {};
    return ::fstat(fd, &out->st);
}
int VLIBCFileUTime(const char *path, int, const struct timespec *times) {
    bare::calls.push_back(std::string("VLIBCFileUTime(") + path + ")");
    return ::utimensat(AT_FDCWD, path, times, 0);
}
int VEXOACLCopy(const char *, const char *dst) {
    bare::calls.push_back(std::string("VEXOACLCopy(") + dst + ")");
    return 0;
}
int VEXOACLArchiveCopy(const char *, const char *dst) {
    bare::calls.push_back(std::string("VEXOACLArchiveCopy(") + dst + ")");
    return 0;
}
int VEXOACLEnforceInherit(const char *) {
    return 0;
}
int VLIBCFileGetKeyValue(const char *, const char *, char *, int, int) {
    return -1;
}
int VLIBCFileSetKeyValue(const char *, const char *, const char *, const char *) {
    return -1;
}
int VLIBCExec(const char *, ...) {
    return -1;
}
int64_t VLIBGetFullDirSize(const char *) {
    return 0;
}
int VEXOFSMntPathGet(const char *, char *, int) {
    return -1;
}
int VolumePathParseEx(const char *, char *, int, char *, int) {
    return -1;
}
int VLIBFSGetBTRFSCompression(const char *) {
    return -1;
}
int VLIBFSGetBTRFSNodatacow(const char *) {
    return -1;
}

// No file of these tests has attributes to be listed.
VLIBCSzList *VLIBCSzListAlloc(int) {
    static VLIBCSzList none{};
    return &none;
}
int VLIBCSzListPush(VLIBCSzList **, const char *) {
    return -1;
}
const char *VLIBCSzListGet(const VLIBCSzList *, int) {
    return nullptr;
}
void VLIBCSzListRemoveAll(VLIBCSzList *) {}
void VLIBCSzListFree(VLIBCSzList *) {}

// In place of what the library calls where the tests do not reach, when a unity build links that too.
extern "C" void vexo_not_reached(void);
void vexo_not_reached(void) {
    std::abort();
}
