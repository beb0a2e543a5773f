// Whether a copy has everything that a tree has, and what each entry of the tree was when that was found out.
#pragma once

#include "tools/engine/compare/linked_names.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/walk/descriptor.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace engine {

// A directory by its parent and name; the parent stays the caller's.
struct TreeTop {
    int parent;
    std::string name;
    int type = -1;    // of the volume
    std::string path; // for people
};

class Proof {
  public:
    // Whether the source has to stay for it.
    using Told = std::function<bool(const std::string &path, const Loss &loss)>;
    // The observer and the callback outlive this.
    Proof(const Observer &observer, Told told) : m_observer(observer), m_told(std::move(told)) {}

    // Remembers what each entry of the tree is, before it is copied. Throws Failure for what cannot be read, and for a
    // volume that is mounted in it.
    void remember(const TreeTop &tree);

    // Compares everything, tells what the copy lacks, and counts the losses for which the source has to stay. Content
    // is read of entries that are not what was remembered; of the others the same size is the same content. What was
    // there and was compared is proven.
    int compare(const TreeTop &tree, const TreeTop &copy);
    // The same for a copy that nobody else can reach yet: what can come late is given to it.
    int compare_staged(const TreeTop &tree, const TreeTop &copy);
    // For a tree of which a part has been removed already, from `since` on: times of directories have changed, and a
    // store may have lost its entry.
    int compare_rest(const TreeTop &tree, const TreeTop &copy, int64_t since);

    // Whether the entry, by descriptor, still is what was proven. Nothing: it was not there then.
    std::optional<bool> holds(int fd) const;
    // One of its names was removed, by our own doing.
    void renew(int fd);

  private:
    // An entry at one moment: what a Witness looks at, in less room, since there is one for each entry of the tree.
    struct Seen {
        mode_t mode;
        bool proven; // else only remembered
        off_t size;
        timespec modified, changed;
        Seen(const struct stat &found, bool isProven);
        bool is(const struct stat &now) const;
    };
    using Fresh = std::vector<struct stat>;
    struct Level;

    // A directory to go on with, by its names in both trees.
    struct Below {
        std::string name, there;
    };
    // What is compared in two directories; adds to `count`, and gives those below.
    using CompareLevel = std::function<std::vector<Below>(int source, int copy, const std::string &path, int &count)>;

    std::vector<std::string> remember_level(int directory, dev_t device, const std::string &path);
    int walk(Descriptor source, Descriptor copy, const std::string &path, const CompareLevel &compare);
    std::vector<Below> compare_level(const Level &level, int &count);
    int compare_entry(const Level &level, const Listing &listing, const Listing::Item &item,
                      std::map<ino_t, ino_t> &arrived, std::vector<Below> &below);
    int compare_own_directory(const Level &level, const Listing &listing, const Listing::Part &part,
                              const std::string &path);
    int compare_without_copy(int source, const std::string &path);
    std::vector<Below> compare_plain_level(int source, int copy, const std::string &path, int &count);
    int compare_stranger(const Level &level, const Listing &listing, const Listing::Part &part);
    bool is_rest(const Level &level, const Listing &listing, const Listing::Part &part) const;
    int lose(const std::string &path, const Loss &loss) { return m_told(path, loss) ? 1 : 0; }
    std::vector<Loss> losses_of(const Side &source, const Side &copy, bool known, bool times) const;
    LinkedNames::Tell tell_apart();
    void note_name(const std::string &path, const struct stat &found, const struct stat &copied);
    // Adds the entry as it is now; whether it still is what was remembered.
    bool look(int directory, const std::string &name, Fresh &fresh) const;
    void prove(const Fresh &fresh);

    const Observer &m_observer;
    Told m_told;
    LinkedNames m_names;
    std::unordered_map<ino_t, Seen> m_seen; // the tree lies on one volume
    std::optional<int64_t> m_since;
    bool m_staged = false;
    dev_t m_device = 0;
};

} // namespace engine
