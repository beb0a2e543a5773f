// Long random sequences of operations on stream files, sound and hostile, held against a plain model of the format:
// results, codes, the handle's table and every byte of the file; and the same with calls and allocations that fail.
#include "tests/ea/stream_fixture.h"
#include "tests/ea/stream_model.h"
#include "tests/kit/seeds.h"

#include <functional>
#include <random>
#include <sys/statvfs.h>

namespace {

using stream::Answer;
using stream::Handle;

class StreamModel : public StreamFile {
  protected:
    void SetUp() override {
        StreamFile::SetUp();
        otherPath = scratch / "other@VexoEAStream";
        other = ::open(otherPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        processAsNow();
    }
    void TearDown() override {
        StreamFile::TearDown();
        ::close(other);
    }

    // ---- What is drawn

    uint32_t upTo(uint64_t most) { return static_cast<uint32_t>(m_random() % (most + 1)); }
    bool oneIn(uint32_t count) { return upTo(count - 1) == 0; }
    std::string bytes(size_t most) { return kit::pattern(upTo(most), static_cast<uint32_t>(m_random())); }
    std::string name() {
        static const std::vector<std::string> names = {
            "a", "bb", "ccc", "dddd", "\xc3\xa9", " ", "x\ny", "", std::string(254, 'n')};
        const uint32_t at = upTo(names.size() + (oneIn(50) ? 1 : 0));
        return at < names.size() ? names[at] : std::string(at == names.size() ? 7 : 255, 'x');
    }
    std::string soundFile() {
        stream::Attributes all;
        for (uint32_t left = upTo(oneIn(20) ? 90 : 6); left > 0; --left) {
            all.emplace_back(name().substr(0, 254), bytes(oneIn(10) ? 5000 : 60));
        }
        const std::string fork = oneIn(2) ? "" : bytes(oneIn(4) ? 40000 : 300);
        const std::string junk = oneIn(5) ? bytes(500) : "";
        std::string file = stream::bytes(all, static_cast<uint32_t>(fork.size()), bytes(32));
        if (oneIn(8)) { // as makers without attributes leave it
            file = file.substr(0, 82);
            file.replace(34, 4, stream::number(32, 4)).replace(42, 4, stream::number(82, 4));
        } else if (oneIn(8)) { // the entries the other way round
            file = file.substr(0, 26) + file.substr(38, 12) + file.substr(26, 12) + file.substr(50);
        }
        return file + fork + junk;
    }
    uint32_t oddNumber(const std::string &file) {
        static const std::vector<uint32_t> odd = {
            0,   1,   2,   9,   12,  13,  14,   31,    32,    33,         50,         82,         84,        119,
            120, 121, 136, 200, 255, 256, 4096, 65535, 65536, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff};
        const uint32_t size = static_cast<uint32_t>(file.size());
        return oneIn(2) ? odd[upTo(odd.size() - 1)] : size - 20 + upTo(40);
    }
    // The values somewhere else, by numbers that agree: over the records, behind a gap, behind the end.
    void shiftValues(std::string &file) {
        const std::vector<uint32_t> ways = {UINT32_MAX, UINT32_MAX - 3, UINT32_MAX - 15, 1, 4, 64, 5000, 0xc0000000};
        const uint32_t by = ways[upTo(ways.size() - 1)];
        const bool isEmptied = oneIn(2);
        const auto at32 = [&file](size_t at) {
            uint32_t value = 0;
            for (size_t next = at; next < at + 4; ++next) {
                value = value << 8 | static_cast<unsigned char>(file[next]);
            }
            return value;
        };
        file.replace(96, 4, stream::number(at32(96) + by, 4));
        if (isEmptied) {
            file.replace(100, 4, stream::zeros(4));
        }
        size_t at = 120;
        for (uint32_t left = at32(116) & 0xffff; left > 0 && at + 11 <= file.size(); --left) {
            file.replace(at, 4, stream::number(isEmptied ? at32(96) : at32(at) + by, 4));
            if (isEmptied) {
                file.replace(at + 4, 4, stream::zeros(4));
            }
            at += (11 + static_cast<unsigned char>(file[at + 10]) + 3U) / 4 * 4;
        }
    }
    void spoil(std::string &file) {
        if (oneIn(8) && file.size() > 140) {
            shiftValues(file);
        }
        for (uint32_t left = upTo(2); left > 0 && file.size() > 140; --left) {
            switch (upTo(4)) {
            case 0: // any number of header or records
                file.replace(24 + 2 * upTo(std::min<size_t>(file.size() - 28, 150) / 2), 4,
                             stream::number(oddNumber(file), 4));
                break;
            case 1: // one of the header's
                static const std::vector<size_t> places = {26, 30, 34, 38, 42, 46, 92, 96, 100};
                file.replace(places[upTo(places.size() - 1)], 4, stream::number(oddNumber(file), 4));
                break;
            case 2:
                file.resize(file.size() - upTo(std::min<size_t>(file.size(), oneIn(2) ? 20 : 400)));
                break;
            case 3: // a number that is nearly right
                file[24 + upTo(std::min<size_t>(file.size() - 25, 200))] += static_cast<char>(upTo(2) - 1);
                break;
            default: // a value that is not all there, by numbers that agree
                file.replace(100, 4, stream::number(oddNumber(file), 4));
            }
        }
    }

    // ---- What is compared

    testing::AssertionResult isLike(const VEXOEAS &eas) const {
        const VEXOEASHeader &h = eas.header;
        const Handle &m = *m_model;
        const auto text = [](const void *at, size_t size) { return std::string(static_cast<const char *>(at), size); };
        bool like = h.magic == m.magic && h.version == m.version && text(h.filler, 16) == m.filler &&
                    h.entryCount == m.entryCount && h.entries[0].id == m.info.id &&
                    h.entries[0].offset == m.info.offset && h.entries[0].length == m.info.length &&
                    h.entries[1].id == m.fork.id && h.entries[1].offset == m.fork.offset &&
                    h.entries[1].length == m.fork.length && text(h.finderInfo, 32) == m.finderInfo &&
                    text(h.padding, 2) == m.padding && h.attrMagic == m.attrMagic && h.debugTag == m.debugTag &&
                    h.totalSize == m.totalSize && h.dataStart == m.dataStart && h.dataLength == m.dataLength &&
                    text(h.reserved, 12) == m.reserved && h.flags == m.flags && h.attrCount == m.records.size();
        if (!like) {
            return testing::AssertionFailure() << "header";
        }
        for (size_t at = 0; at < m.records.size(); ++at) {
            const VEXOEASRecord &r = eas.records[at];
            const stream::Record &wanted = m.records[at];
            like = like && r.offset == wanted.offset && r.length == wanted.length && r.flags == wanted.flags &&
                   r.nameLength == wanted.nameLength && text(r.name, r.nameLength) == wanted.name;
        }
        return like && eas.capacity >= static_cast<int32_t>(m.records.size())
                   ? testing::AssertionSuccess()
                   : testing::AssertionFailure() << "records";
    }
    void same(const std::string &what, int64_t result, const Answer &wanted) {
        const int number = errno;
        ASSERT_EQ(wanted.result, result) << what << std::hex << " code " << VLIBCErrGet();
        if (result < 0) {
            ASSERT_TRUE(wanted.codes.count(VLIBCErrGet()) == 1) << what << std::hex << " code " << VLIBCErrGet();
        }
        if (wanted.error != 0) {
            ASSERT_EQ(wanted.error, number) << what;
        }
        sameState(what);
    }
    void sameState(const std::string &what) {
        const std::string now = content();
        ASSERT_TRUE(now == m_file) << what << ": " << now.size() << " bytes, wanted " << m_file.size()
                                   << ", different from "
                                   << std::mismatch(now.begin(), now.end(), m_file.begin(), m_file.end()).first -
                                          now.begin();
        if (m_eas != nullptr) {
            ASSERT_TRUE(isLike(*m_eas)) << what;
        }
    }

    // ---- Steps

    void start(uint32_t seed, bool hostile) {
        m_random.seed(seed);
        m_hostile = hostile;
        m_file = oneIn(6) ? "" : soundFile();
        if (hostile) {
            spoil(m_file);
        }
        put(m_file);
        reopen();
    }
    void finish() {
        if (m_eas != nullptr) {
            EXPECT_EQ(0, VEXOEASClose(m_eas));
            m_eas = nullptr;
        }
    }
    void reopen() {
        finish();
        m_model.emplace(m_file);
        const Answer wanted = m_model->open();
        VLIBCErrSetEx(0, "", 0);
        m_eas = VEXOEASOpen(fd, F_WRLCK);
        same("open", m_eas == nullptr ? -1 : 0, wanted);
    }
    // A file that cannot be opened, or that was looked at for long enough, makes room for the next one.
    void exchange() {
        finish();
        if (m_hostile && oneIn(2)) {
            spoil(m_file);
        } else {
            m_file = oneIn(4) ? "" : soundFile();
        }
        put(m_file);
        reopen();
    }

    using Wanted = std::function<Answer(Handle &)>;
    using Done = std::function<int64_t(VEXOEAS *)>;
    struct Step {
        std::string what;
        Wanted wanted;
        Done done;
    };
    Step drawChange() {
        const std::string to = name();
        const uint32_t choice = upTo(9);
        if (choice < 6) {
            const std::string data = bytes(oneIn(10) ? 20000 : 80);
            const uint32_t offset = oneIn(3) ? (oneIn(20) ? UINT32_MAX - upTo(100) : upTo(100)) : 0;
            const int how = oneIn(6) ? static_cast<int>(upTo(3)) : 1;
            return {"write of " + std::to_string(data.size()) + " at " + std::to_string(offset),
                    [=](Handle &model) { return model.write(to, data, offset, how); },
                    [=](VEXOEAS *eas) {
                        return VEXOEASWrite(eas, to.c_str(), data.data(), static_cast<uint32_t>(data.size()), offset,
                                            how);
                    }};
        }
        if (choice < 8) {
            return {"remove", [=](Handle &model) { return model.remove(to); },
                    [=](VEXOEAS *eas) { return VEXOEASRemove(eas, to.c_str()); }};
        }
        const uint32_t length = oneIn(20) ? UINT32_MAX - upTo(100) : upTo(oneIn(4) ? 3000 : 60);
        return {"truncate to " + std::to_string(length), [=](Handle &model) { return model.truncate(to, length); },
                [=](VEXOEAS *eas) { return VEXOEASTruncate(eas, to.c_str(), length); }};
    }
    void change() {
        const Step step = drawChange();
        const Answer wanted = step.wanted(*m_model);
        errno = 0;
        VLIBCErrSetEx(0, "", 0);
        const int64_t result = step.done(m_eas);
        same(step.what, result, wanted);
    }
    void read() {
        const std::string from = name();
        const uint32_t size = oneIn(4) ? 0 : upTo(200);
        const uint32_t offset = oneIn(2) ? 0 : upTo(oneIn(10) ? UINT32_MAX : 100);
        std::string buffer(size + 1, '?');
        const Answer wanted = m_model->read(from, size, offset);
        const int result = VEXOEASRead(m_eas, from.c_str(), buffer.data(), size, offset);
        same("read", result, wanted);
        if (result > 0 && size > 0) {
            ASSERT_EQ(wanted.bytes, buffer.substr(0, wanted.bytes.size()));
        }
        ASSERT_EQ(m_model->search(from), VEXOEASSearch(m_eas, from.c_str()));
    }
    void list() {
        VLIBCSzList *names = VLIBCSzListAlloc(4);
        ASSERT_EQ(static_cast<int>(m_model->records.size()), VEXOEASEnum(m_eas, &names));
        for (int at = 0; at < names->count; ++at) {
            ASSERT_EQ(m_model->records[static_cast<size_t>(at)].text(), VLIBCSzListGet(names, at));
        }
        VLIBCSzListFree(names);
    }
    void pieces() {
        switch (upTo(3)) {
        case 0: {
            if (m_model->records.empty()) {
                return;
            }
            const uint32_t index = upTo(m_model->records.size() - 1);
            const bool keep = oneIn(2);
            std::string buffer(oneIn(3) ? upTo(100) : 30000, '?');
            const Answer wanted = m_model->update(index, buffer.size(), keep);
            same("update",
                 VEXOEASUpdateEntry(m_eas, static_cast<int>(index), buffer.data(), static_cast<uint32_t>(buffer.size()),
                                    keep ? 0 : 1),
                 wanted);
            ASSERT_EQ(wanted.bytes, buffer.substr(0, wanted.bytes.size()));
            reopen(); // the file does not know of it
            return;
        }
        case 1: {
            const Answer wanted = m_model->writeHeader();
            same("header", VEXOEASWriteHeader(m_eas), wanted);
            return;
        }
        case 2: {
            const std::string info = bytes(32) + std::string(32, 'i');
            m_model->finderInfo = info.substr(0, 32);
            std::memcpy(m_eas->header.finderInfo, info.data(), 32);
            const Answer wanted = m_model->writeFinderInfo();
            same("Finder Info", EASWriteFinderInfo(m_eas), wanted);
            return;
        }
        default: {
            const uint32_t to = upTo(m_file.size() + 20000);
            const uint32_t from = upTo(m_file.size() + 100);
            const uint32_t length = upTo(oneIn(10) ? UINT32_MAX : 40000);
            if (to < from || length < 50000 || length > m_file.size()) {
                const Answer wanted = m_model->moveForkTo(to, from, length);
                same("move", EASMoveRFork(m_eas, to, from, length), wanted);
            }
        }
        }
    }
    // All attributes of this file into another.
    void copyAll() {
        finish();
        std::string source = m_file;
        m_file = oneIn(3) ? "" : soundFile();
        if (m_hostile) {
            spoil(m_file);
        }
        kit::writeFile(otherPath, source);
        put(m_file);
        const Answer wanted = copied(source);
        VLIBCErrSetEx(0, "", 0);
        same("copy", EASWriteToFd(other, fd), wanted);
        reopen();
    }
    Answer copied(std::string &source) {
        Handle from(source);
        m_model.emplace(m_file);
        for (Handle *handle : {&from, &*m_model}) {
            if (Answer opened = handle->open(); opened.result < 0) {
                return opened;
            }
        }
        uint32_t failed = 0;
        uint32_t code = 0;
        bool isOpen = true;
        for (const stream::Record &record : from.records) {
            if (uint64_t{record.offset} + record.length > source.size()) {
                ++failed;
                code = 0x0A00;
                continue;
            }
            if (!isOpen) { // after a failure it is opened anew
                m_model.emplace(m_file);
                isOpen = m_model->open().result == 0;
            }
            const std::string value = record.length == 0 ? "" : source.substr(record.offset, record.length);
            isOpen = isOpen && m_model->write(record.text(), value, 0, 1).result >= 0;
            failed += isOpen ? 0 : 1;
            code = isOpen ? code : 0x0B00;
        }
        return failed == 0 ? Answer{} : Answer{-1 - int64_t{failed}, {code}};
    }
    void count() {
        reopen(); // it is the file that is asked
        if (m_eas == nullptr) {
            return;
        }
        ASSERT_EQ(static_cast<int>(m_model->records.size()), EASGetAttrCount(fd));
        ASSERT_EQ(0, VEXOEASLockSet(m_eas, F_WRLCK)); // the count's lock took the handle's with it
    }
    void step() {
        if (m_eas == nullptr) {
            exchange();
            return;
        }
        const uint32_t choice = upTo(19);
        if (choice < 13) {
            change();
        } else if (choice < 15) {
            read();
        } else if (choice == 15) {
            list();
            count();
        } else if (choice == 16) {
            pieces();
        } else if (choice == 17) {
            reopen();
        } else if (choice == 18) {
            exchange();
        } else {
            copyAll();
        }
    }

    // ---- Failures

    // One change with something failing; when it failed for that, file and handle are as before, and it succeeds when
    // nothing fails any more.
    void changeFailing(const std::function<std::string()> &fail, const std::function<void()> &heal) {
        const Step step = drawChange();
        const std::string before = m_file;
        const Handle handleBefore = *m_model;
        const Answer wanted = step.wanted(*m_model);
        const std::string after = m_file;
        const Handle handleAfter = *m_model;
        const std::string what = step.what + ", " + fail();
        errno = 0;
        VLIBCErrSetEx(0, "", 0);
        const int64_t result = step.done(m_eas);
        const uint32_t code = VLIBCErrGet();
        heal();
        VLIBCErrSetEx(code, "", 0);
        if (wanted.result < 0) {
            ASSERT_EQ(-1, result) << what;
            sameState(what);
        } else if (result >= 0) {
            same(what, result, wanted);
        } else if (const std::string now = content(); m_isCut && now != before) {
            // Cutting the file is the last step of a removal, which is not undone.
            ASSERT_EQ(after, now.substr(0, after.size())) << what;
            ASSERT_EQ(0, ::ftruncate(fd, static_cast<off_t>(after.size())));
            sameState(what);
        } else {
            m_file = before;
            m_model = handleBefore;
            sameState(what);
            ASSERT_NE(0u, code) << what;
            m_file = after;
            m_model = handleAfter;
            same(what + ", again", step.done(m_eas), wanted);
        }
    }
    std::string drawFault() {
        static const std::vector<std::string> functions = {"write", "write",     "read",     "lseek",
                                                           "fstat", "ftruncate", "fallocate"};
        static const std::vector<int> errors = {EIO, ENOSPC, EINTR, EFBIG, EDQUOT};
        m_isCut = false;
        if (oneIn(5)) {
            const int nth = 1 + static_cast<int>(upTo(4));
            kit::Faults::failAllocation(nth);
            return "allocation " + std::to_string(nth);
        }
        kit::FaultRule rule;
        rule.function = functions[upTo(functions.size() - 1)];
        rule.path = path;
        rule.skip = static_cast<int>(upTo(rule.function == "fallocate" ? 0 : 6));
        if (rule.function == "write" && oneIn(3)) {
            rule.result = 0; // shorter than anything that is written
            rule.answers = true;
        } else {
            rule.error = errors[upTo(errors.size() - 1)];
        }
        m_isCut = rule.function == "ftruncate";
        kit::Faults::add(rule);
        return rule.function + " " + std::to_string(rule.skip) + " error " + std::to_string(rule.error);
    }
    void stepFailing() {
        if (m_eas == nullptr || oneIn(6)) {
            step();
        } else {
            changeFailing([this] { return drawFault(); }, [] { kit::Faults::reset(); });
        }
    }

    void run(uint32_t few, bool hostile, const std::function<void()> &one) {
        for (const uint32_t seed : kit::seeds(few, 4000)) {
            SCOPED_TRACE(kit::repeat(seed));
            start(seed, hostile);
            for (int left = 60; left > 0 && !HasFatalFailure(); --left) {
                SCOPED_TRACE("step " + std::to_string(60 - left));
                one();
            }
            finish();
            if (HasFailure()) {
                return;
            }
        }
    }

    std::string otherPath;
    int other = -1;
    std::mt19937 m_random;
    bool m_hostile = false;
    bool m_isCut = false;
    std::string m_file;
    std::optional<Handle> m_model;
    VEXOEAS *m_eas = nullptr;
};

TEST_F(StreamModel, SoundFiles) {
    run(150, false, [this] { step(); });
}

TEST_F(StreamModel, HostileFiles) {
    run(300, true, [this] { step(); });
}

TEST_F(StreamModel, SoundFilesWithFailingCalls) {
    run(150, false, [this] { stepFailing(); });
}

TEST_F(StreamModel, HostileFilesWithFailingCalls) {
    run(100, true, [this] { stepFailing(); });
}

TEST_F(StreamModel, VolumeThatIsFullNowAndThen) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(2 << 20));
    const std::string ballast = volume / "ballast";
    const int filler = ::open(ballast.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ::close(fd);
    path = volume / "stream";
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    processAsNow();
    const auto fill = [&] {
        struct statvfs room {};
        EXPECT_EQ(0, ::statvfs(volume.path().c_str(), &room));
        const uint64_t blocks = room.f_bavail - std::min<uint64_t>(room.f_bavail - 1, upTo(3));
        EXPECT_EQ(0, ::posix_fallocate(filler, 0, static_cast<off_t>(blocks * room.f_bsize)));
        return std::string("full volume");
    };
    run(30, false, [&] {
        if (m_eas == nullptr || oneIn(6)) {
            step();
        } else {
            changeFailing(fill, [&] { EXPECT_EQ(0, ::ftruncate(filler, 0)); });
        }
    });
    ::close(filler);
    ::close(fd);
    fd = ::open((scratch / "left").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    processAsNow();
}

} // namespace
