// The resource fork of a file on a volume that exposes it as the pseudo-file "<file>/rsrc". Looking a name up "in" the
// file takes the right to execute it, which few files give anybody; so their owner is lent it for the operation.
//
// The three operations behind VEXOEAXattrGet, -Set and -Remove live here once. They report under the source name of the
// function that runs them.
#pragma once

#include "ea/files/held_file.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cstddef>
#include <sys/stat.h>

namespace vexo {

// The name under which callers ask for the resource fork; no longer name that begins with it is meant.
bool is_resource_fork(const char *name);

// The results of VEXOEAXattrGet, -Set and -Remove for a resource fork. `source` lives as long as the process.
int get_resource_fork(const char *path, void *value, int size, const char *source);
int set_resource_fork(const char *path, const void *value, int size, int flags, const char *source);
int remove_resource_fork(const char *path, const char *source);

// Access to the fork of one file for a scope: the execute permission and the effective user are lent by open() where
// they are missing, and are as they were at the end of the scope, whatever the way out. Reports.
class ResourceForkAccess {
  public:
    // What a failing stat of the file leaves: a reader tells by the last error, a writer by a log line.
    enum class StatFailure { sets_error, is_logged };

    ResourceForkAccess(const char *path, const char *source) : m_path(path), m_source(source) {}
    ResourceForkAccess(const ResourceForkAccess &) = delete;
    ResourceForkAccess &operator=(const ResourceForkAccess &) = delete;
    ~ResourceForkAccess() { restore(); }

    // false, reported: no fork of this path can be reached.
    [[nodiscard]] bool open(StatFailure failure);
    // Looks up the fork's length. false, with errno, unreported.
    [[nodiscard]] bool stat_fork();

    const char *fork_path() const { return m_fork.c_str(); }
    off_t length() const { return m_length; }

  private:
    void report_stat(StatFailure failure) const;
    void lend_execution(const struct stat &file);
    void restore();

    const char *m_path;
    const char *m_source;
    RootPeriod m_root;
    HeldFile m_file; // while it is lent the permission
    mode_t m_mode = 0;
    bool m_lent = false;
    off_t m_length = 0;
    PathBuffer m_fork;
};

} // namespace vexo
