// The single steps of a conversion that change an entry, or a file that is to be part of its store.
#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace engine {

// Gives an open directory its times back, at the end: names that come and go in it are no change of its user's.
class KeepTimes {
  public:
    explicit KeepTimes(int directory);
    KeepTimes(const KeepTimes &) = delete;
    KeepTimes &operator=(const KeepTimes &) = delete;
    ~KeepTimes();

  private:
    int m_directory;
    struct stat m_before {};
    bool m_known;
};

// For a store file that takes the place of attributes: whoever may read or write the entry may do so there. Throws
// Failure.
void take_rights_of_entry(const struct stat &entry, int fd);

// Into an open resource file, where its header has the place for it. Throws Failure.
void put_finder_info(int fd, const std::string &finderInfo);

// `entry` is the path of the entry itself, by its descriptor. The metadata attribute of one that has none, with the
// time that goes with it; whatever fails, it has neither. Throws Failure.
void create_metadata(const std::string &entry, const std::string &value);
// Takes back what was made, as far as that can be done.
void drop_metadata(const std::string &entry);
// The same of one that is known. Throws Failure, also where it has another value by now.
void remove_metadata(const std::string &entry, const std::string &value);

// Sets an attribute that is not there. True: the volume takes none of that name or size. Throws Failure for every other
// reason.
bool is_refused_attribute(const std::string &entry, const std::string &name, const std::string &value);

} // namespace engine
