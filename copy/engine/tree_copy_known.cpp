// What the files of one directory of a tree need not ask for one by one.
#include "copy/engine/tree_copy_steps.h"

#include "ea/carry/known.h"
#include "platform/sdk.h"
#include "support/own_volume.h"

#include <fcntl.h>
#include <sys/vfs.h>

namespace vexo {
namespace {

// Volumes that are not this kernel's own, such as those of a server, may set a file's times when it is closed, and may
// leave out attributes when they list them.
bool on_own_volume(const char *directory) {
    struct statfs volume {};
    return ::statfs(directory, &volume) == 0 && is_own_volume(volume);
}

} // namespace

StoreSeen TreeWalk::look_for_stores() const {
    if (m_request.move) {
        return StoreSeen::unknown;
    }
    if (!lacks_ea_directory(src())) {
        return StoreSeen::source;
    }
    return lacks_ea_directory(dst()) ? StoreSeen::neither : StoreSeen::unknown;
}

// What is the same for every file of the directory is looked up with the first one. Where it cannot be, each file asks
// for itself, and so does each that is moved: what others put into an "@eaDir" meanwhile is the only copy.
void TreeWalk::look_up_directory(Level &level) {
    if (level.asked) {
        return;
    }
    level.asked = true;
    const KeepErrors keep;
    const int type = m_request.srcKindHolds ? m_request.srcKind : VEXOGetFSType(src(), 0);
    if (type >= 0) {
        const bool listsAll = !m_request.move && on_own_volume(src());
        level.known = WalkedDirectory{level.status.st.st_dev, type, look_for_stores(), on_own_volume(dst()), listsAll};
        open_directories(level);
    }
}

// A name is found in half the time of a path. Where stores lie beside the files those go by path, and so do the files:
// a directory that is renamed meanwhile would give its files without what belongs to them.
void TreeWalk::open_directories(Level &level) const {
    WalkedDirectory &known = *level.known;
    if (known.stores != StoreSeen::neither || !known.timesStay || !known.listsAll) {
        return;
    }
    level.copies.reset(::open(dst(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    known.to = level.copies.get();
    known.from = known.to < 0 ? -1 : level.entries.fd();
}

} // namespace vexo
