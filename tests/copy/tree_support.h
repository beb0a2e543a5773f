// What the tests of the directory copies share. Two families of front doors run the same walk: a copy is asked for
// once, as a Tree with TreeCallbacks, and goes through whichever family a test names.
#pragma once

#include "copy/copy.h"
#include "ea/ea.h"
#include "tests/copy/file_copy_support.h"
#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tree {

using file_copy::AsUser;
using file_copy::callsOf;
using file_copy::expectLogged;
using file_copy::kCopyAcl;
using file_copy::kFailIfExists;
using file_copy::kKeepOwner;
using file_copy::kMove;
using file_copy::kNobody;
using file_copy::kNoEa;
using file_copy::kReplace;
using file_copy::linesOf;
using file_copy::Progress;
using file_copy::reason;
using file_copy::Report;
using file_copy::Row;

enum class Family {
    opt,    // VEXOFileCopyDirectoryEx: VEXOCopyOpt and VEXOCopyArgsEx
    fileOp, // VEXOFileOpCopyDir: a flag word and a VEXOCopyArgs
};
inline void PrintTo(Family family, std::ostream *out) {
    *out << (family == Family::opt ? "opt" : "fileOp");
}
inline std::string nameOf(Family family) {
    return family == Family::opt ? "Opt" : "FileOp";
}
inline std::string sourceOf(Family family) {
    return family == Family::opt ? "copy/copy_file_copy_directory.c" : "copy/fileop_copy_file_directory.c";
}

// The flags beside those of a single file.
enum Flag : uint32_t {
    kStopOnError = 0x80,
    kRelocate = 0x800,
};

struct Tree : file_copy::Request {
    bool stopOnError = false;
};

// Empty functions are null slots.
struct TreeCallbacks : file_copy::Callbacks {
    std::function<int64_t(const std::string &, const std::string &)> dirSize;
    std::function<int(const std::string &, std::string &)> name; // the second is the name at the destination
    std::function<int(const std::string &, const std::string &)> copyFile;

    std::string srcCodePage, destCodePage; // what the records hold; the names' callback checks that it gets them

    static TreeCallbacks &bare() { return static_cast<TreeCallbacks &>(*Callbacks::current()); }
    static TreeCallbacks &of(void *data) { return static_cast<TreeCallbacks &>(Callbacks::of(data)); }
    int giveName(const char *entry, char *out, int size) {
        EXPECT_EQ(4096, size);
        std::string given;
        const int result = name(entry, given);
        std::snprintf(out, static_cast<size_t>(size), "%s", given.c_str());
        return result;
    }
};

// The slots that only trees have.
struct BareSlots {
    static int64_t dirSize(const char *src, const char *dst) { return TreeCallbacks::bare().dirSize(src, dst); }
    static int name(const char *entry, const char *srcCodePage, const char *destCodePage, char *out, int size) {
        TreeCallbacks &now = TreeCallbacks::bare();
        EXPECT_EQ(now.srcCodePage, srcCodePage);
        EXPECT_EQ(now.destCodePage, destCodePage);
        return now.giveName(entry, out, size);
    }
    static int copyFile(const char *src, const char *dst, VEXOCopyOpt *, int, int, int, VEXOCopyArgsEx *) {
        return TreeCallbacks::bare().copyFile(src, dst);
    }
};
struct DataSlots {
    static int64_t dirSize(void *data, const char *src, const char *dst) {
        return TreeCallbacks::of(data).dirSize(src, dst);
    }
    static int name(void *data, const char *entry, char *out, int size) {
        return TreeCallbacks::of(data).giveName(entry, out, size);
    }
    static int copyFile(void *data, const char *src, const char *dst, uint32_t, VEXOCopyArgs *) {
        return TreeCallbacks::of(data).copyFile(src, dst);
    }
};

inline VEXOCopyOpt optionsOf(const Tree &tree, const TreeCallbacks &callbacks) {
    VEXOCopyOpt opt = file_copy::optionsOf(tree, callbacks);
    opt.stopOnError = tree.stopOnError ? 1 : 0;
    return opt;
}
inline VEXOCopyArgsEx exOf(const TreeCallbacks &callbacks) {
    VEXOCopyArgsEx ex = file_copy::exOf(callbacks);
    ex.getDirSize = callbacks.dirSize ? BareSlots::dirSize : nullptr;
    ex.getDstFileName = callbacks.name ? BareSlots::name : nullptr;
    ex.copyFile = callbacks.copyFile ? BareSlots::copyFile : nullptr;
    VEXOCopyArgsExSetSrcCodePage(&ex, callbacks.srcCodePage.c_str());
    VEXOCopyArgsExSetDestCodePage(&ex, callbacks.destCodePage.c_str());
    return ex;
}
inline uint32_t flagsOf(const Tree &tree) {
    return file_copy::flagsOf(tree) | (tree.stopOnError ? kStopOnError : 0U);
}
inline VEXOCopyArgs argsOf(const Tree &tree, TreeCallbacks &callbacks) {
    VEXOCopyArgs args = file_copy::argsOf(tree, callbacks);
    args.getDirSize = callbacks.dirSize ? DataSlots::dirSize : nullptr;
    args.getDirSizeArg = &callbacks;
    args.getDstFileName = callbacks.name ? DataSlots::name : nullptr;
    args.getDstFileNameArg = &callbacks;
    args.copyFile = callbacks.copyFile ? DataSlots::copyFile : nullptr;
    args.copyFileArg = &callbacks;
    return args;
}
inline int run(Family family, const Tree &tree, TreeCallbacks &callbacks) {
    TreeCallbacks::current() = &callbacks;
    if (family == Family::opt) {
        VEXOCopyOpt opt = optionsOf(tree, callbacks);
        VEXOCopyArgsEx ex = exOf(callbacks);
        return VEXOFileCopyDirectoryEx(tree.src.c_str(), tree.dst.c_str(), &opt, &ex);
    }
    VEXOCopyArgs args = argsOf(tree, callbacks);
    return VEXOFileOpCopyDir(tree.src.c_str(), tree.dst.c_str(), flagsOf(tree), &args);
}

inline void makeDirectory(const std::string &path, mode_t mode = 0755) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0700)) << path;
    ASSERT_EQ(0, ::chmod(path.c_str(), mode)) << path;
}
// The store of the entry `name` of `directory`, as volumes of the EA-directory kind keep it: one attribute.
inline void putStore(const std::string &directory, const std::string &name, const std::string &value) {
    ::mkdir((directory + "/@eaDir").c_str(), 0777);
    const std::string path = directory + "/@eaDir/" + name + "@VexoEAStream";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_GE(fd, 0) << path;
    VEXOEAS *stream = VEXOEASOpen(fd, F_WRLCK);
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(static_cast<int>(value.size()),
              VEXOEASWrite(stream, "comment", value.data(), static_cast<uint32_t>(value.size()), 0, 1));
    VEXOEASClose(stream);
    ::close(fd);
}
inline std::string storeOf(const std::string &directory, const std::string &name) {
    const std::string path = directory + "/@eaDir/" + name + "@VexoEAStream";
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return "(no store)";
    }
    VEXOEAS *stream = VEXOEASOpen(fd, F_RDLCK);
    std::string value(256, '\0');
    const int length = stream == nullptr ? -1 : VEXOEASRead(stream, "comment", value.data(), 256, 0);
    if (stream != nullptr) {
        VEXOEASClose(stream);
    }
    ::close(fd);
    return length < 0 ? "(none)" : value.substr(0, static_cast<size_t>(length));
}

// A source directory "tree" and a place for its copy, on volumes of the EA-directory kind.
class Scene : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        from = scratch / "from";
        to = scratch / "to";
        ::chmod(scratch.path().c_str(), 0755);
        makeDirectory(from, 0777);
        makeDirectory(to, 0777);
        request.src = from + "/tree";
        request.dst = to + "/copy";
        makeDirectory(request.src);
        kit::PlatformDouble::setType(scratch.path(), 1);
    }

    std::string src(const std::string &below) const { return request.src + "/" + below; }
    std::string dst(const std::string &below) const { return request.dst + "/" + below; }
    void putFile(const std::string &below, const std::string &content = "data") const {
        kit::writeFile(src(below), content);
    }
    void putDirectory(const std::string &below, mode_t mode = 0755) const { makeDirectory(src(below), mode); }
    // A small tree: "a", "sub/b", "sub/deep/c", a link, an empty directory.
    void putSample() const {
        putFile("a", kit::pattern(5000));
        putDirectory("empty");
        putDirectory("sub");
        putFile("sub/b", kit::pattern(70000, 2));
        putDirectory("sub/deep");
        putFile("sub/deep/c", "");
        ASSERT_EQ(0, ::symlink("../a", src("sub/link").c_str()));
    }
    // As if the destination lay on another volume, for `times` renames (0: all).
    static void acrossVolumes(int times = 0) {
        kit::Faults::add({.function = "rename", .error = EXDEV, .times = times});
    }
    int copyThrough(Family family) { return run(family, request, callbacks); }
    void expectReported(const std::string &path, uint32_t code) const {
        EXPECT_EQ((std::vector<Report>{{path, code}}), callbacks.reports);
    }
    void expectNotReported() const { EXPECT_EQ(std::vector<Report>(), callbacks.reports); }

    std::string from, to;
    Tree request;
    TreeCallbacks callbacks;
};

class BothFamilies : public Scene, public ::testing::WithParamInterface<Family> {
  protected:
    int copy() { return copyThrough(GetParam()); }
    static std::string source() { return sourceOf(GetParam()); }
    static void expectLine(const std::string &body, int times = 1, int priority = LOG_ERR) {
        expectLogged(source(), priority, body, times);
    }
    static void expectNoLine() { EXPECT_EQ(0, linesOf(source(), LOG_ERR)) << kit::Log::all(); }
};
inline const auto kFamilies = ::testing::Values(Family::opt, Family::fileOp);
inline std::string familyName(const ::testing::TestParamInfo<Family> &info) {
    return nameOf(info.param);
}

class FamilyAndRow : public Scene, public ::testing::WithParamInterface<std::tuple<Family, Row>> {
  protected:
    static Row row() { return std::get<1>(GetParam()); }
    int copy() { return copyThrough(std::get<0>(GetParam())); }
    static std::string source() { return sourceOf(std::get<0>(GetParam())); }
};
inline std::string familyRowName(const ::testing::TestParamInfo<std::tuple<Family, Row>> &info) {
    return nameOf(std::get<0>(info.param)) + ::strerrorname_np(std::get<1>(info.param).number);
}

#define TREE_NEEDS_ROOT() FILE_COPY_NEEDS_ROOT()

} // namespace tree
