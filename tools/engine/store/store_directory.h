// The "@eaDir" of a directory, and what is kept for one of its entries.
#pragma once

#include <string>

namespace engine {

// Makes one, or the directory of one file in it, as VEXOEAMKDir does, whose result and last error it has: open to all.
// It is so from the start, whatever the umask would take away until then: a kill in between leaves none that keeps
// the owners of files from what is kept for them. (A default ACL of the directory still has its say for that moment.)
int make_store_directory(const std::string &path);

// What is kept beside an entry goes, as by VEXOEARemove, whose arguments, result and last error it has; but that marks
// the entry as changed, by its path, where by then somebody may have put a link that leads elsewhere.
int remove_beside(const std::string &path, int volumeType);

// Whether there is certainly none in an open directory.
bool lacks_store_directory(int directory);

} // namespace engine
