#include "copy/copy.h"

#include "transfer/fat_name.h"

int VEXOStrReplaceFATReservedChar(const char *path, char *out, int size) {
    return vexo::replace_fat_reserved(path, out, size);
}
