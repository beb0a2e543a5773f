/* Copies a file through the installed library, and has a second copy refused. */
#include <stdio.h>
#include <vexofileop/backup.h>
#include <vexofileop/copy.h>
#include <vexofileop/ea.h>
#include <vexofileop/index.h>
#include <vexofileop/notify.h>
#include <vexofileop/platform/acl.h>
#include <vexofileop/platform/core.h>
#include <vexofileop/platform/sdk.h>

int main(int argc, char **argv) {
    VEXOCopyOpt options = {0};
    if (argc != 3) {
        return 2;
    }
    if (VEXOFileCopy(argv[1], argv[2], &options) != 0) {
        fprintf(stderr, "copy failed: 0x%04X\n", (unsigned)VLIBCErrGet());
        return 1;
    }
    options.overwrite = -1;
    if (VEXOFileCopy(argv[1], argv[2], &options) != -1 || VLIBCErrGet() != 0xA300) {
        fprintf(stderr, "an existing destination was not refused\n");
        return 1;
    }
    return 0;
}
