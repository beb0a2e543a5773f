#include "tests/agreement/random_tree.h"

#include "platform/core.h"
#include "platform/sdk.h"
#include "tests/kit/scratch.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/look.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace agreement {
namespace {

constexpr const char *kNames[] = {"plain", "with blank", "odd\nname", "gr\xc3\xbc\xc3\x9f", "not\xff-utf8", ".hidden",
                                  "a?b*c", "long",       "sparse",    "more.tar.gz"};

// Nearly the same name: another for most volumes, and the same one, or one that becomes the same, for some.
std::string twin_of(std::string name, size_t way) {
    constexpr size_t ways = 3;
    if (way % ways == 0) {
        std::ranges::transform(name, name.begin(), [](char one) { return one >= 'a' && one <= 'z' ? one - 32 : one; });
    } else if (way % ways == 1) {
        std::ranges::replace(name, '?', '-');
        std::ranges::replace(name, '*', '-');
    } else {
        name += way % 2 == 0 ? "." : " ";
    }
    return name;
}

class Grower {
  public:
    Grower(uint32_t seed, const TreeOptions &options)
        : m_random(seed), m_older(options.older), m_partial(options.partial), m_lossless(options.lossless),
          m_large(options.large) {}

    void directory(const std::string &path, int depth) {
        if (!may(::mkdir(path.c_str(), 0755))) {
            return;
        }
        const size_t entries = below(depth == 0 ? 7 : 4) + (depth == 0 ? 1 : 0);
        for (size_t number = 0; number < entries; ++number) {
            std::string name = kNames[below(std::size(kNames))];
            name += std::to_string(number) + (name == "long" ? std::string(230, 'n') : "");
            // What stands there already has some of the names, and they are not always what they are here.
            if (m_older && below(2) == 0) {
                name += "x";
            }
            entry(path + "/" + name, depth);
            if (below(8) == 0) {
                entry(path + "/" + twin_of(name, below(6)), depth + 1);
            }
        }
        if (m_large > 0 && depth == 0) {
            kit::writeSparse(path + "/large", m_large, {{1 << 20, 9}});
        }
        if (!m_older && below(6) == 0) {
            ASSERT_EQ(0, ::mkdir((path + "/@tmp").c_str(), 0755));
        }
        if (!m_older && below(6) == 0) {
            kit::writeFile(path + "/._stray", "stray");
        }
        if (!m_older && below(6) == 0 && engine::exists(path + "/@eaDir")) {
            kit::writeFile(path + "/@eaDir/nobody@VexoEAStream", "nobody's");
        }
        if (below(6) == 0 && ::mkdir((path + "/@eaDir").c_str(), 0777) == 0) { // none so far, and nothing in it
            plain(path + "/@eaDir");
        }
        belongings(path, true);
    }

  private:
    // Whether it was done. What a volume refuses is not in the tree where that may be.
    bool may(int result) {
        EXPECT_TRUE(result == 0 || m_partial || errno == EEXIST) << std::strerror(errno);
        return result == 0;
    }
    bool make_file(const std::string &path) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        return may(fd < 0 ? -1 : ::close(fd));
    }
    // Never two in the arguments of one call, whose order is the compiler's: a seed says the same tree everywhere.
    size_t below(size_t end) { return std::uniform_int_distribution<size_t>(0, end - 1)(m_random); }

    void entry(const std::string &path, int depth) {
        switch (below(12)) {
        case 0:
        case 1:
            if (depth < 2) {
                directory(path, depth + 1);
                return;
            }
            break;
        case 2:
            if (may(::symlink(below(2) == 0 ? "plain0" : "nowhere/at all", path.c_str()))) {
                owners(path);
                times(path);
            }
            return;
        case 3:
            if (!m_older) {
                constexpr mode_t kinds[] = {S_IFIFO, S_IFSOCK, S_IFCHR};
                constexpr dev_t null = 0x103;
                constexpr timespec times[] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
                if (may(::mknod(path.c_str(), kinds[(path.size() - path.rfind('/')) % 3] | 0640, null))) {
                    may(::lchown(path.c_str(), 7, 65534));
                    may(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW));
                }
            }
            return;
        case 4:
            if (!m_older && !m_files.empty()) {
                may(::link(m_files[below(m_files.size())].c_str(), path.c_str()));
                return;
            }
            break;
        case 5:
            if (!make_file(path)) {
                return;
            }
            if (below(3) == 0 && !m_lossless) { // one hole, of less than a block or of a few
                kit::writeSparse(path, static_cast<off_t>(below(2) == 0 ? below(512) : below(20'000)), {});
            } else {
                kit::writeSparse(path, 1 << 20, {{1 << 19, 5000}}, static_cast<uint32_t>(below(100)));
            }
            belongings(path, false);
            return;
        default:
            break;
        }
        if (!make_file(path)) {
            return;
        }
        const auto pattern = static_cast<uint32_t>(below(1000));
        kit::writeFile(path, kit::pattern(below(8) == 0 ? 0 : below(9000), pattern));
        belongings(path, false);
        m_files.push_back(path);
    }

    void owners(const std::string &path) {
        constexpr uid_t users[] = {0, 0, 7, 65534};
        const gid_t group = users[below(4)];
        may(::lchown(path.c_str(), users[below(4)], group));
    }
    // Of a directory last: its entries change them. A creation time goes where the volume keeps one.
    void times(const std::string &path) {
        const auto moment = [this] {
            return timespec{static_cast<time_t>(1'000'000'000 + below(700'000'000)),
                            static_cast<long>(below(10'000'000)) * 100};
        };
        timespec all[] = {moment(), moment(), moment()};
        if (below(12) == 0 && !m_lossless) { // which not every volume has
            constexpr time_t far[] = {-2'000'000'000, 157'766'400, 4'500'000'000, 16'725'225'600};
            all[1].tv_sec = far[below(std::size(far))];
        }
        may(::utimensat(AT_FDCWD, path.c_str(), all, AT_SYMLINK_NOFOLLOW));
        const mode_t mode = kit::statOf(path).st_mode;
        if (S_ISLNK(mode)) {
            return;
        }
        // A user has to be allowed to write for that, or what is made twice is not the same.
        const bool closed = ::geteuid() != 0 && (mode & S_IWUSR) == 0;
        if (closed) {
            (void)::chmod(path.c_str(), (mode & 07777) | S_IWUSR);
        }
        (void)VLIBCFileUTime(path.c_str(), 3, all);
        if (closed) {
            (void)::chmod(path.c_str(), mode & 07777);
        }
    }

    // What the volume refuses is not there, on any volume of a pair.
    void attribute(const std::string &path, const char *name, size_t size) {
        const std::string value = kit::pattern(size, static_cast<uint32_t>(below(100)));
        (void)::lsetxattr(path.c_str(), name, value.data(), value.size(), 0);
    }
    static void acl(const std::string &path, acl_type_t type, const char *text) {
        acl_t parsed = ::acl_from_text(text);
        (void)::acl_set_file(path.c_str(), type, parsed);
        ::acl_free(parsed);
    }

    void belongings(const std::string &path, bool directory) {
        constexpr mode_t modes[] = {0644, 0600, 0755, 0440, 04755, 02750, 01777, 0666};
        owners(path);
        may(::chmod(path.c_str(), modes[below(std::size(modes))]));
        if (below(3) == 0) {
            attribute(path, "user.note", below(40));
        }
        if (below(6) == 0) {
            attribute(path, "user.long", 1000 + below(1500));
        }
        if (below(6) == 0) {
            attribute(path, below(2) == 0 ? "trusted.word" : "security.word", 8);
        }
        if (below(8) == 0) {
            attribute(path, "security.NTACL", 64);
        }
        if (below(4) == 0) {
            acl(path, ACL_TYPE_ACCESS, "u::rwx,u:7:rw-,g::r--,m::rw-,o::---");
        }
        if (directory && below(4) == 0) {
            acl(path, ACL_TYPE_DEFAULT, "u::rwx,u:9:r-x,g::r-x,m::r-x,o::---");
        }
        store(path);
        things(path);
        if (below(4) == 0) {
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            constexpr int setHidden = 0x203, setSystem = 0x204;
            (void)VLIBCKernelAttrFcntl(fd, below(3) == 0 ? setSystem : setHidden);
            ::close(fd);
        }
        if (below(10) == 0) {
            lock(path);
        }
        times(path);
    }

    void store(const std::string &path) {
        if (below(4) != 0) {
            return;
        }
        const bool fork = below(2) == 0;
        try {
            const engine::Store store(path);
            store.set("com.example.stream", kit::pattern(10 + below(3000), 5), engine::Store::Existing::either);
            if (fork) {
                store.set("user.in store", "short", engine::Store::Existing::either);
            }
        } catch (const engine::Failure &) {
            return; // no room beside a very long name
        }
        if (fork && kit::exists(path.substr(0, path.rfind('/')) + "/@eaDir")) {
            resource(path);
        }
    }

    // What other services keep for it in a directory of its own.
    void things(const std::string &path) {
        const size_t slash = path.rfind('/');
        const std::string store = path.substr(0, slash) + "/@eaDir", own = store + path.substr(slash);
        if (below(5) != 0 || (!engine::exists(store) && ::mkdir(store.c_str(), 0777) != 0) ||
            ::mkdir(own.c_str(), 0755) != 0) {
            return;
        }
        if (below(2) == 0) {
            ASSERT_EQ(0, ::mkdir((own + "/deep").c_str(), 0755));
            thing(own + "/deep/index");
            plain(own + "/deep");
        }
        if (below(4) == 0) {
            may(::mkfifo((own + "/queue").c_str(), 0600));
        }
        thing(own + "/thumb");
        plain(own);
    }
    void thing(const std::string &path) {
        const auto pattern = static_cast<uint32_t>(below(1000));
        kit::writeFile(path, kit::pattern(below(3000), pattern));
        if (below(4) == 0) {
            attribute(path, "user.note", below(40));
        }
        if (below(4) == 0) {
            acl(path, ACL_TYPE_ACCESS, "u::rwx,u:7:rw-,g::r--,m::rw-,o::---");
        }
        plain(path);
    }
    void plain(const std::string &path) {
        constexpr mode_t modes[] = {0600, 0755, 0770};
        owners(path);
        ASSERT_EQ(0, ::chmod(path.c_str(), modes[below(std::size(modes))]));
        times(path);
    }

    // As clients of SMB do.
    static void lock(const std::string &path) {
        constexpr int lock = 522;
        (void)VLIBCKernelAttrCall(path.c_str(), lock);
    }

    // Finder Info and a resource fork, as Mac clients leave them; with a comment and what servers for Macs keep of it.
    void resource(const std::string &path) {
        const size_t slash = path.rfind('/');
        const std::string place = path.substr(0, slash) + "/@eaDir/" + path.substr(slash + 1) + "@VexoResource";
        if (below(3) == 0 && !m_lossless) {
            kit::writeFile(place, whole_resource(), 0777);
            return;
        }
        constexpr unsigned char header[] = {0, 5, 0x16, 7,  0, 2, 0, 0, 0, 0, 0, 0,  0, 0, 0, 0, 0,
                                            0, 0, 0,    0,  0, 0, 0, 0, 2, 0, 0, 0,  9, 0, 0, 0, 50,
                                            0, 0, 0,    32, 0, 0, 0, 2, 0, 0, 0, 82, 0, 0, 0, 64};
        static_assert(sizeof header == 50);
        kit::writeFile(place,
                       std::string(reinterpret_cast<const char *>(header), sizeof header) +
                           kit::pattern(32 + 64, static_cast<uint32_t>(below(100))),
                       0777);
    }

    std::string whole_resource() {
        constexpr uint32_t start = 741, fork = 90;
        struct Part {
            uint32_t id, offset;
            std::string bytes;
        };
        const char afp[] = {0, 0, static_cast<char>(below(3) == 0 ? 1 : 0),
                            static_cast<char>(below(2) == 0 ? 0x40 : 0)};
        const Part parts[] = {{9, 86, kit::pattern(32, static_cast<uint32_t>(below(100)))},
                              {4, 118, kit::pattern(below(2) * 20, 7)},
                              {14, 354, std::string(afp, sizeof afp)},
                              {2, start, kit::pattern(fork, static_cast<uint32_t>(below(100)))}};
        std::string bytes(start, '\0');
        const auto put = [&](size_t at, uint32_t number, size_t width) {
            for (size_t i = 0; i < width; ++i) {
                bytes[at + i] = static_cast<char>(number >> (8 * (width - 1 - i)));
            }
        };
        put(0, 0x00051607, 4);
        put(4, 0x00020000, 4);
        put(24, std::size(parts), 2);
        size_t at = 26;
        for (const Part &part : parts) {
            put(at, part.id, 4);
            put(at + 4, part.offset, 4);
            put(at + 8, static_cast<uint32_t>(part.bytes.size()), 4);
            bytes.replace(part.offset, part.bytes.size(), part.bytes);
            at += 12;
        }
        return bytes;
    }

    std::mt19937 m_random;
    bool m_older, m_partial, m_lossless;
    off_t m_large;
    std::vector<std::string> m_files;
};

} // namespace

void make_tree(const std::string &top, uint32_t seed, const TreeOptions &options) {
    Grower(seed, options).directory(top, 0);
}

void make_twins(const std::string &top) {
    ASSERT_EQ(0, ::mkdir(top.c_str(), 0755));
    for (const char *const name : {"directory", "both", "BOTH"}) {
        ASSERT_EQ(0, ::mkdir((top + "/" + name).c_str(), 0755));
        kit::writeFile(top + "/" + name + "/inner", name);
    }
    for (const char *const name : {"directory.", "two", "two.", "Case", "case", "gr\xc3\xbc", "gru\xcc\x88", "not\xff",
                                   "not?", "blank", "blank ", "way"}) {
        kit::writeFile(top + "/" + name, name);
    }
    ASSERT_EQ(0, ::symlink("two", (top + "/way.").c_str()));
}

} // namespace agreement
