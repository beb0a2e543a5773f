// The tables of docs/decisions.md, made anew by doing what each cell tells and seeing what comes of it.
#include "copy/copy.h"
#include "ea/ea.h"

#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <array>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>

namespace {

using namespace item_store;

using Row = std::vector<std::string>;

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string inOneLine(const Row &row) {
    std::string line = "|";
    for (const std::string &cell : row) {
        line += cell.empty() ? " |" : " " + cell + " |";
    }
    return line;
}

// The rows of the table that begins with this cell, as lines with their blanks put in order.
std::vector<std::string> documented(const std::string &firstCell) {
    std::istringstream document(kit::readFile(DECISIONS));
    std::vector<std::string> rows;
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        if (!line.starts_with("|")) {
            inside = false;
        } else if (trimmed(line.substr(1, line.find('|', 1) - 1)) == firstCell) {
            inside = true;
        } else if (inside && !line.starts_with("|-")) {
            Row row;
            std::istringstream cells(line.substr(1));
            for (std::string cell; std::getline(cells, cell, '|');) {
                row.push_back(trimmed(cell));
            }
            rows.push_back(inOneLine(row));
        }
    }
    return rows;
}

void expectTable(const std::string &firstCell, const std::vector<Row> &made) {
    std::string expected;
    std::string found;
    for (const std::string &line : documented(firstCell)) {
        expected += line + "\n";
    }
    for (const Row &row : made) {
        found += inOneLine(row) + "\n";
    }
    EXPECT_EQ(expected, found) << "docs/decisions.md (first) does not tell what happens (second)";
}

std::string hexadecimal(uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%04X", code);
    return text;
}

// ---- What exists at the destination, and the conflict policy

enum class There { nothing, file, directory, itself, noParent };
enum class Callback { none, names_another, names_what_exists, fails };

class Conflict : public kit::Behaviour {
  protected:
    struct Situation {
        const char *text;
        There there;
        Callback callback;
        bool move;
    };
    // What became of it, in the words of the table.
    std::string outcome(const Situation &situation, int policy, bool byFlags) {
        const std::string root = scratch / std::to_string(++m_number);
        const std::string source = root + "/source";
        const std::string destination = situation.there == There::itself     ? source
                                        : situation.there == There::noParent ? root + "/none/file"
                                                                             : root + "/file";
        EXPECT_EQ(0, ::mkdir(root.c_str(), 0755));
        kit::writeFile(source, "new");
        kit::writeFile(root + "/exists too", "old");
        if (situation.there == There::file) {
            kit::writeFile(destination, "old");
        } else if (situation.there == There::directory) {
            EXPECT_EQ(0, ::mkdir(destination.c_str(), 0755));
        }
        s_callback = situation.callback;
        s_root = root;
        VLIBCErrSetEx(0, "", 0);
        const int result = byFlags ? byArguments(situation, source, destination, policy)
                                   : byOptions(situation, source, destination, policy);
        const bool stays = situation.there == There::file || situation.there == There::itself;
        const std::string before = situation.there == There::itself ? "new" : "old";
        if (stays && kit::readFile(destination) == before && !kit::exists(root + "/another")) {
            return std::string("stays: ") + (result == 0 ? "success" : "failure, " + hexadecimal(VLIBCErrGet()));
        }
        if (result != 0) {
            return "failure, " + hexadecimal(VLIBCErrGet());
        }
        if (situation.there == There::directory) {
            return kit::namesIn(destination).empty() ? "stays: success" : "?";
        }
        if (kit::exists(root + "/another")) {
            return kit::readFile(root + "/another") == "new" ? "callback names another" : "?";
        }
        return kit::readFile(destination) != "new" ? "?" : stays ? "replaced" : "copied";
    }

  private:
    static int rename(const char *, char *out, int size) {
        const char *const name = s_callback == Callback::names_another ? "another" : "exists too";
        std::snprintf(out, static_cast<size_t>(size), "%s/%s", s_root.c_str(), name);
        return s_callback == Callback::fails ? -1 : 0;
    }
    static int renameWithData(void *, const char *destination, char *out, int size) {
        return rename(destination, out, size);
    }
    static int byOptions(const Situation &situation, const std::string &source, const std::string &destination,
                         int policy) {
        VEXOCopyOpt options{};
        options.overwrite = policy;
        options.move = situation.move ? 1 : 0;
        options.rename = situation.callback == Callback::none ? nullptr : rename;
        return VEXOFileCopy(source.c_str(), destination.c_str(), &options);
    }
    static int byArguments(const Situation &situation, const std::string &source, const std::string &destination,
                           int policy) {
        constexpr uint32_t fail = 1, replace = 2, move = 4;
        const uint32_t flags = policy > 0 ? replace : policy < 0 ? fail : 0;
        const std::unique_ptr<VEXOCopyArgs, decltype(&VEXOCopyArgsFree)> record(VEXOCopyArgsAlloc(), &VEXOCopyArgsFree);
        if (situation.callback != Callback::none) {
            VEXOCopyArgsSetFnRename(record.get(), renameWithData, nullptr);
        }
        return VEXOFileOpCopyFile(source.c_str(), destination.c_str(), flags | (situation.move ? move : 0),
                                  record.get());
    }
    static inline Callback s_callback;
    static inline std::string s_root;
    int m_number = 0;
};

TEST_F(Conflict, TableTellsWhatHappens) {
    const Situation situations[] = {
        {"nothing", There::nothing, Callback::none, false},
        {"a file, no callback", There::file, Callback::none, false},
        {"a file, callback, copy", There::file, Callback::names_another, false},
        {"a file, callback, move", There::file, Callback::names_another, true},
        {"a file, and the name from the callback exists too", There::file, Callback::names_what_exists, false},
        {"a file, and the callback fails", There::file, Callback::fails, false},
        {"the source itself", There::itself, Callback::none, false},
        {"a directory", There::directory, Callback::none, false},
        {"its parent directory is missing", There::noParent, Callback::none, false},
    };
    std::vector<Row> rows;
    for (const Situation &situation : situations) {
        Row row{situation.text};
        for (const int policy : {1, 0, -1}) {
            row.push_back(outcome(situation, policy, false));
            EXPECT_EQ(row.back(), outcome(situation, policy, true)) << "by flags: " << situation.text << policy;
        }
        rows.push_back(row);
    }
    expectTable("Destination \\ policy", rows);
    // Of both flags failing wins.
    kit::writeFile(scratch / "one", "new");
    kit::writeFile(scratch / "other", "old");
    EXPECT_FAILS(VEXOFileOpCopyFile((scratch / "one").c_str(), (scratch / "other").c_str(), 3, nullptr), 0xA300);
    EXPECT_EQ("old", kit::readFile(scratch / "other"));
}

// ---- What carries metadata between two kinds of volume

class Kinds : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    // Carries the store of a file with everything to a new volume of the type `to`.
    int carry(int from, int to, bool move = false) {
        const std::string root = scratch / std::to_string(++m_number);
        EXPECT_EQ(0, ::mkdir(root.c_str(), 0755));
        source = {root + "/from", "file"};
        destination = {root + "/to", "file"};
        makeVolume(source.directory, from);
        makeVolume(destination.directory, to);
        makeFile(source, from);
        makeFile(destination, to);
        build(source, from, {"TEXTttxt" + std::string(24, '\0'), "fork", {{"user.colour", "green"}}, {}, false});
        if (from == kEaDirectory || from == kFileEa) {
            kit::setAttribute(source.path(), "user.own", "x");
        }
        return VEXOEACopy(source.path().c_str(), destination.path().c_str(), move ? 1 : 0, 0, -1, -1, 0, 0);
    }
    // What a file has, in the words of the tables.
    static std::string parts(const Place &place) {
        std::string text;
        const auto add = [&text](bool there, const char *what) {
            text += there ? (text.empty() ? "" : ", ") + std::string(what) : "";
        };
        add(kit::exists(place.dotFile()), "\"._\" file");
        add(kit::exists(place.resource()), "resource file");
        add(kit::exists(place.stream()), "stream file");
        add(!kit::attribute(place.path(), "user.netatalk.Metadata").empty(), "metadata attribute");
        add(!kit::attribute(place.path(), "com.apple.FinderInfo").empty(), "native attributes");
        add(!kit::attribute(place.path(), "user.own").empty(), "\"user.\" attributes");
        return text.empty() ? "nothing" : text;
    }

    Place source, destination;

  private:
    int m_number = 0;
};

constexpr std::pair<int, const char *> kKinds[] = {{kAppleDouble, "AppleDouble"},
                                                   {kNative, "native attributes"},
                                                   {kEaDirectory, "EA directory"},
                                                   {kFileEa, "file EA"}};

TEST_F(Kinds, TableTellsWhichTypesKeepMetadataWhere) {
    std::map<std::string, std::string> codes;
    for (int code = 0; code <= 24; ++code) {
        EXPECT_EQ(0, carry(kAppleDouble, code));
        std::string &list = codes[parts(destination)];
        list += (list.empty() ? "" : ", ") + std::to_string(code);
    }
    expectTable("Kind of volume", {{"AppleDouble", codes["\"._\" file"], "\"._\" file"},
                                   {"native attributes", codes["native attributes"], "native attributes"},
                                   {"EA directory", codes["resource file, stream file"], "resource file, stream file"},
                                   {"file EA", codes["resource file, stream file, metadata attribute"],
                                    "resource file, stream file, metadata attribute"},
                                   {"other", "any other", codes.contains("nothing") ? "nothing" : "?"}});
    EXPECT_EQ(5U, codes.size());
}

TEST_F(Kinds, TablesTellWhatArrivesAndWhatAMoveLeaves) {
    std::vector<Row> arriving;
    std::vector<Row> left;
    for (const auto &[from, text] : kKinds) {
        Row arrived{text};
        Row remaining{text};
        for (const auto &[to, ignored] : kKinds) {
            EXPECT_EQ(0, carry(from, to));
            arrived.push_back(parts(destination));
            EXPECT_EQ(0, carry(from, to, true));
            remaining.push_back(parts(source));
        }
        arriving.push_back(arrived);
        left.push_back(remaining);
    }
    expectTable("From \\ to: arrives", arriving);
    expectTable("From \\ to: a move leaves", left);
}

TEST_F(Kinds, OtherVolumesTakeNothingAndGiveNothing) {
    constexpr int other = 4, remote = 12;
    EXPECT_EQ(0, carry(kEaDirectory, other));
    EXPECT_EQ("nothing", parts(destination));
    EXPECT_EQ(-1, carry(other, kEaDirectory));
    EXPECT_EQ(0, carry(kEaDirectory, remote));
    EXPECT_EQ("resource file, stream file, \"user.\" attributes", parts(destination));
    EXPECT_EQ(-1, carry(remote, kEaDirectory));
}

// ---- The locked state of a file

class Locks : public Kinds {
  protected:
    static constexpr size_t kAfpWord = 372;

    // A file with metadata of which the AFP attributes are `word`.
    static void setAfpWord(const Place &place, int kind, uint16_t word) {
        const auto header = [word](size_t size) {
            return adouble_bytes::metadata(size).replace(kAfpWord, 2, adouble_bytes::number(word, 2));
        };
        if (kind == kFileEa) {
            kit::setAttribute(place.path(), "user.netatalk.Metadata", header(402));
        } else if (kind == kEaDirectory) {
            makeDirectories(place);
            kit::writeFile(place.resource(), header(741));
        }
    }
    static uint16_t afpWord(const Place &place, int kind) {
        const std::string bytes =
            kind == kFileEa ? kit::attribute(place.path(), "user.netatalk.Metadata") : content(place.resource());
        return static_cast<uint16_t>(word(bytes, kAfpWord, 2));
    }
    // Two new files of those kinds without a store.
    void makeFiles(int from, int to) {
        carry(from, to);
        for (const Place *place : {&source, &destination}) {
            (void)VEXOEARemove(place->path().c_str(), -1);
            ::removexattr(place->path().c_str(), "user.netatalk.Metadata");
        }
    }
    // Whether a file with this way of being locked makes its copy locked.
    bool locks(int kind, const std::function<void()> &setLock) {
        makeFiles(kind, kAppleDouble);
        setLock();
        EXPECT_EQ(0, VEXOEACopy(source.path().c_str(), destination.path().c_str(), 0, 0, -1, -1, 0, 0));
        return (kit::statOf(destination.path()).st_mode & 0222) == 0;
    }
};

TEST_F(Locks, TableTellsWhatIsLocked) {
    std::vector<Row> rows;
    for (const auto &[kind, text] : kKinds) {
        const int code = kind;
        std::string when;
        if (locks(code, [&] { ::chmod(source.path().c_str(), kit::statOf(source.path()).st_mode & 07555); })) {
            when = "no write bit in its mode";
        }
        if (code != kAppleDouble && code != kNative) {
            when += locks(code, [&] { VLIBCKernelAttrCall(source.path().c_str(), 522); }) ? "the platform's flag" : "";
            std::string bits;
            for (uint32_t bit = 0x8000; bit != 0; bit >>= 1) {
                if (locks(code, [&] { setAfpWord(source, code, static_cast<uint16_t>(bit)); })) {
                    bits += (bits.empty() ? "" : ", ") + hexadecimal(bit);
                }
            }
            when += ", or one of the AFP attributes " + bits;
        }
        // Locked by a copy from a locked file, and unlocked by one from a file that is not.
        std::string by;
        makeFiles(kAppleDouble, code);
        setAfpWord(destination, code, 0);
        ::chmod(source.path().c_str(), 0444);
        const mode_t before = kit::statOf(destination.path()).st_mode;
        EXPECT_EQ(0, VEXOEACopy(source.path().c_str(), destination.path().c_str(), 0, 0, -1, -1, 0, 0));
        by += kit::statOf(destination.path()).st_mode == (before & ~0222U) ? "taking the three write bits" : "";
        by += isPlatformLocked(destination) ? "the platform's flag" : "";
        const uint16_t set = afpWord(destination, code);
        by += set != 0 ? ", and " + hexadecimal(set) + " in the AFP attributes that are there" : "";
        ::chmod(source.path().c_str(), 0644);
        EXPECT_EQ(0, VEXOEACopy(source.path().c_str(), destination.path().c_str(), 0, 0, -1, -1, 0, 0));
        const bool given = (kit::statOf(destination.path()).st_mode & 0222) == 0222;
        EXPECT_EQ(code == kAppleDouble || code == kNative, given);
        EXPECT_FALSE(isPlatformLocked(destination));
        EXPECT_EQ(0, afpWord(destination, code) & 0x0100);
        rows.push_back({text, when, by});
    }
    expectTable("Kind", rows);
}

// ---- The lock of a stream handle

class StreamLock : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        kit::writeFile(scratch / "stream", stream::bytes({{"a", "value"}}));
    }
    // A call on a handle opened with that lock; then what it was: "works" or the code.
    std::string made(int lock, const std::function<int(VEXOEAS *)> &call) {
        const int fd = ::open((scratch / "stream").c_str(), O_RDWR | O_CLOEXEC);
        VEXOEAS *const handle = VEXOEASOpen(fd, lock);
        EXPECT_NE(nullptr, handle);
        VLIBCErrSetEx(0, "", 0);
        const int result = call(handle);
        const uint32_t code = VLIBCErrGet();
        VEXOEASClose(handle);
        ::close(fd);
        return result >= 0 ? "works" : hexadecimal(code);
    }
    // What another process would have to wait for.
    bool isLocked() const {
        const pid_t child = ::fork();
        if (child == 0) {
            const int fd = ::open((scratch / "stream").c_str(), O_RDWR | O_CLOEXEC);
            struct flock wanted {};
            wanted.l_type = F_WRLCK;
            ::_exit(::fcntl(fd, F_GETLK, &wanted) == 0 && wanted.l_type == F_UNLCK ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WEXITSTATUS(status) != 0;
    }
};

TEST_F(StreamLock, TableTellsWhichCallNeedsWhich) {
    constexpr int locks[] = {F_UNLCK, F_RDLCK, F_WRLCK};
    char buffer[16];
    const std::function<int(VEXOEAS *)> search = [](VEXOEAS *handle) { return VEXOEASSearch(handle, "a"); };
    const std::function<int(VEXOEAS *)> read = [&](VEXOEAS *handle) { return VEXOEASRead(handle, "a", buffer, 5, 0); };
    const std::function<int(VEXOEAS *)> write = [](VEXOEAS *handle) { return VEXOEASWrite(handle, "a", "b", 1, 0, 1); };
    const std::function<int(VEXOEAS *)> cut = [](VEXOEAS *handle) { return VEXOEASTruncate(handle, "a", 1); };
    const std::function<int(VEXOEAS *)> change = [](VEXOEAS *handle) { return VEXOEASLockSet(handle, F_WRLCK); };
    std::vector<Row> rows;
    for (const auto &[text, call] : {std::pair("search, enumerate", search),
                                     {"read a value", read},
                                     {"write, truncate, remove", write},
                                     {"change the lock", change}}) {
        Row row{text};
        for (const int lock : locks) {
            row.push_back(made(lock, call));
        }
        rows.push_back(row);
    }
    for (const int lock : locks) {
        EXPECT_EQ(made(lock, write), made(lock, cut));
        EXPECT_EQ(made(lock, search), made(lock, [](VEXOEAS *handle) {
                      VLIBCSzList *list = VLIBCSzListAlloc(4);
                      const int result = VEXOEASEnum(handle, &list);
                      VLIBCSzListFree(list);
                      return result;
                  }));
    }
    Row held{"held until it is closed"};
    for (const int lock : locks) {
        bool during = false;
        made(lock, [&](VEXOEAS *) { return during = isLocked(); });
        EXPECT_FALSE(isLocked());
        held.push_back(during ? "yes" : "no");
    }
    rows.push_back(held);
    expectTable("Call \\ lock held", rows);
}

} // namespace
