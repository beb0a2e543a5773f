#include "tools/engine/store/store_directory.h"

#include "ea/ea.h"
#include "tools/engine/volume/volume_traits.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

class NothingCut {
  public:
    NothingCut() : m_mask(::umask(0)) {}
    NothingCut(const NothingCut &) = delete;
    NothingCut &operator=(const NothingCut &) = delete;
    ~NothingCut() { (void)::umask(m_mask); }

  private:
    mode_t m_mask;
};

} // namespace

int make_store_directory(const std::string &path) {
    const NothingCut open;
    return VEXOEAMKDir(0, path.c_str());
}

int remove_beside(const std::string &path, int volumeType) {
    const StoreKind kind = store_kind(volumeType);
    if (kind != StoreKind::ea_directory && kind != StoreKind::file_ea) {
        return VEXOEARemove(path.c_str(), volumeType);
    }
    const int own = EARemove(0, path.c_str()), streams = EARemove(1, path.c_str());
    return own < 0 || streams < 0 ? -1 : 0;
}

bool lacks_store_directory(int directory) {
    return ::faccessat(directory, "@eaDir", F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

} // namespace engine
