// Whether the directories of a relocation are apart. It empties one, discards another and removes the third at the end:
// where one holds another, by whatever name, the only copy would go with it.
#pragma once

namespace vexo {

// Neither resolves into the other, neither inode is that of the other or of a directory on the way to it, and nothing
// that is mounted in one is part of the other. What is not there yet counts as the name it will have in its directory.
// Where the parent is not there either it is apart from everything: the steps that need it say what is wrong with it.
// What cannot be looked at is not known to be apart. Says nothing.
bool are_apart(const char *one, const char *other);

} // namespace vexo
