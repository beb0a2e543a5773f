#include "copy/copy.h"

#include "transfer/write_file.h"

int VEXOWriteFileFd(int fd, const void *buf, int64_t len) {
    return vexo::write_file(fd, buf, len);
}
