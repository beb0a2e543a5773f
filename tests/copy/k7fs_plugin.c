/* Plug-ins of the cloud file system, as a test puts them where the library looks for one. */
#include <stdint.h>
#include <string.h>

#if defined(K7FS_LIMIT)
/* The limit tells the path it was asked for: a megabyte for each of its bytes. */
int K7FSFileSizeLimitGet(const char *path, uint64_t *limit);
int K7FSFileSizeLimitGet(const char *path, uint64_t *limit) {
    if (*limit != 0) {
        return -1;
    }
    *limit = (uint64_t)strlen(path) * 1000000;
    return 0;
}
#elif defined(K7FS_FAILING)
/* Fails although it has filled the limit. */
int K7FSFileSizeLimitGet(const char *path, uint64_t *limit);
int K7FSFileSizeLimitGet(const char *path, uint64_t *limit) {
    (void)path;
    *limit = 5;
    return 1;
}
#elif defined(K7FS_NAMELESS)
/* Has another function only. */
int K7FSFileSizeLimitGet2(void);
int K7FSFileSizeLimitGet2(void) {
    return 0;
}
#endif
