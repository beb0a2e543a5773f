// What a local user may plant where a store's files lie ("@eaDir" is writable for everybody), to lead a process with
// more rights away: and the files outside that it must not be led to.
#pragma once

#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

namespace planted {

enum class Thing { link, dangling_link, hard_link, pipe, socket, device, directory };
inline constexpr std::array kThings = {Thing::link,   Thing::dangling_link, Thing::hard_link, Thing::pipe,
                                       Thing::socket, Thing::device,        Thing::directory};

inline const char *name(Thing thing) {
    constexpr std::array kNames = {"Link", "DanglingLink", "HardLink", "Pipe", "Socket", "Device", "Directory"};
    return kNames[static_cast<size_t>(thing)];
}

// Stands in every file that is to stay secret.
inline const std::string kSecret = "known to root alone";

// A directory of root's that nobody else may enter, with a file in it that nobody else may read.
class Outside {
  public:
    // `bytes` are what the file holds: those of a store, say, with kSecret in them.
    Outside(const std::string &directory, const std::string &bytes, const std::string &name = "secret")
        : m_directory(directory), m_name(name) {
        ::mkdir(m_directory.c_str(), 0700);
        kit::writeFile(file(), bytes, 0600);
        ::chmod(file().c_str(), 0600);
    }

    const std::string &directory() const { return m_directory; }
    std::string file() const { return m_directory + "/" + m_name; }
    std::string nothing() const { return m_directory + "/not there"; }

    // Call it when everything is planted: a hard link counts as one of the file's names.
    void remember() { m_before = kit::Fingerprint::of(m_directory); }
    // Content, mode, owner and times are what they were, and nothing has come beside it.
    void expectUnchanged() const {
        EXPECT_EQ("", m_before.differenceTo(kit::Fingerprint::of(m_directory), {"accessed"}));
    }

  private:
    std::string m_directory, m_name;
    kit::Fingerprint m_before;
};

// Puts such a thing at `path`, in place of what stood there. The directories on the way are made, open to all.
inline void plant(Thing thing, const std::string &path, const Outside &outside) {
    namespace fs = std::filesystem;
    const fs::path parent = fs::path(path).parent_path();
    if (fs::create_directories(parent)) {
        ::chmod(parent.c_str(), 0777);
    }
    fs::remove_all(path);
    int result = 0;
    switch (thing) {
    case Thing::link:
        result = ::symlink(outside.file().c_str(), path.c_str());
        break;
    case Thing::dangling_link:
        result = ::symlink(outside.nothing().c_str(), path.c_str());
        break;
    case Thing::hard_link:
        result = ::link(outside.file().c_str(), path.c_str());
        break;
    case Thing::pipe:
        result = ::mkfifo(path.c_str(), 0666);
        break;
    case Thing::socket:
        result = ::mknod(path.c_str(), S_IFSOCK | 0666, 0);
        break;
    case Thing::device:
        result = ::mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)); // the null device
        break;
    case Thing::directory:
        result = ::mkdir(path.c_str(), 0777);
        break;
    }
    ASSERT_EQ(0, result) << name(thing) << " at " << path;
}

// Puts a link to the directory outside at the place of a directory of the store.
inline void plantDirectoryLink(const std::string &path, const Outside &outside) {
    std::filesystem::remove_all(path);
    ASSERT_EQ(0, ::symlink(outside.directory().c_str(), path.c_str())) << path;
}

// The files below `root`, other names of the secret file itself left out, that hold the secret in their bytes or
// attributes.
inline std::set<std::string> published(const std::string &root, const Outside &outside) {
    namespace fs = std::filesystem;
    std::set<std::string> found;
    const struct stat secret = kit::statOf(outside.file());
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path();
        const struct stat status = kit::statOf(path);
        if (!S_ISREG(status.st_mode) || (status.st_ino == secret.st_ino && status.st_dev == secret.st_dev)) {
            continue;
        }
        std::ifstream file(path, std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(file), {}};
        for (const char *attribute :
             {"user.secret", "com.apple.FinderInfo", "com.apple.ResourceFork", "user.netatalk.Metadata"}) {
            bytes += "\n" + kit::attribute(path, attribute);
        }
        if (bytes.find(kSecret) != std::string::npos) {
            found.insert(path);
        }
    }
    return found;
}

// Runs `body` in a child that is ended when it waits for something that never comes. `body` returns a number below
// 100; -1 when it hung.
template <typename Body>
int withoutHanging(Body body) {
    constexpr unsigned kLongEnough = 300;
    return kit::inChild([&body] {
        ::alarm(kLongEnough);
        const int result = body();
        ::alarm(0);
        return result;
    });
}

// The same for a whole test, whose expectations count.
template <typename Body>
testing::AssertionResult holdsWithoutHanging(Body body) {
    constexpr unsigned kLongEnough = 300;
    return kit::holdsInChild([&body] {
        ::alarm(kLongEnough);
        body();
        ::alarm(0);
    });
}

} // namespace planted
