// Parsing an AppleDouble header: one defect each, and what is accepted beside it.
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/kit/behaviour.h"

#include <string>
#include <syslog.h>

namespace {

using adouble_bytes::Entry;
using adouble_bytes::header;

class AdoubleRead : public kit::Behaviour {
  protected:
    int read(const std::string &text) { return VEXOEAAdoubleRead(text.data(), static_cast<int>(text.size()), &record); }
    void expectBad(const std::vector<Entry> &entries, const std::string &line, size_t size = 1024) {
        kit::Log::reset();
        EXPECT_FAILS(read(header(entries, size)), 0x0D00);
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, "AdoubleEntriesParse: wrong eid: " + line)) << kit::Log::all();
        EXPECT_EQ("ea/ea_adouble_read.c", kit::Log::lines()[0].source);
    }
    void expectGood(const std::vector<Entry> &entries) {
        EXPECT_EQ(0, read(header(entries, 1024)));
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    }

    VEXOEAAdouble record{};
};

TEST_F(AdoubleRead, BadArgumentsAreRefused) {
    const std::string text(1025, '\0');
    EXPECT_FAILS(VEXOEAAdoubleRead(nullptr, 402, &record), 0x0D00);
    EXPECT_FAILS(VEXOEAAdoubleRead(text.data(), 402, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEAAdoubleRead(text.data(), 1025, &record), 0x0D00);
    EXPECT_FAILS(VEXOEAAdoubleRead(text.data(), -1, &record), 0x0D00);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(AdoubleRead, EntriesLandInTheirSlots) {
    std::string text = adouble_bytes::metadata();
    text[401] = 'z';
    ASSERT_EQ(0, read(text));
    EXPECT_EQ(0x00051607u, record.magic);
    EXPECT_EQ(0x00020000u, record.version);
    EXPECT_EQ(122u, record.entries[9].offset);
    EXPECT_EQ(32u, record.entries[9].length);
    EXPECT_EQ(374u, record.entries[16].offset);
    EXPECT_EQ(382u, record.entries[17].offset);
    EXPECT_EQ(390u, record.entries[18].offset);
    EXPECT_EQ(398u, record.entries[19].offset);
    EXPECT_EQ(0u, record.entries[2].offset);
    EXPECT_EQ(0u, record.entries[15].offset);
    EXPECT_EQ(text, std::string(reinterpret_cast<const char *>(record.raw), 402));
    EXPECT_EQ(0, record.raw[402]);
}

TEST_F(AdoubleRead, FillerIsNotLookedAt) {
    EXPECT_EQ(0, read(header(adouble_bytes::kMetadata, 402, 0x00051607, 0x00020000, "anything at all!")));
}

TEST_F(AdoubleRead, NoEntriesIsAnEmptyTable) {
    record.entries[9].offset = 7; // of an earlier read
    EXPECT_EQ(0, read(header({}, 402)));
    for (const VEXOEAAdoubleEntry &entry : record.entries) {
        EXPECT_EQ(0u, entry.offset);
    }
}

TEST_F(AdoubleRead, WrongMagicOrVersionIsRefused) {
    EXPECT_FAILS(read(header({}, 402, 0x00051600)), 0x0A00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "ad magic[333312] and ad version[131072] error")) << kit::Log::all();
    EXPECT_FAILS(read(header({}, 402, 0x00051607, 0x00010000)), 0x0A00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "ad magic[333319] and ad version[65536] error")) << kit::Log::all();
    EXPECT_FAILS(read(header({}, 402, 0xffffffff)), 0x0A00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "ad magic[-1] and ad version[131072] error")) << kit::Log::all();
}

// What is not there reads as zero: a count of entries need not be there.
TEST_F(AdoubleRead, HeaderThatEndsBeforeItsCountHasNoEntries) {
    const std::string text = header({}, 26);
    for (size_t size = 0; size < 6; ++size) {
        EXPECT_FAILS(read(text.substr(0, size)), 0x0A00);
    }
    for (size_t size = 6; size <= text.size(); ++size) { // the version ends in zeros
        EXPECT_EQ(0, read(text.substr(0, size))) << size;
        EXPECT_EQ(0u, record.entries[9].offset);
    }
}

TEST_F(AdoubleRead, BadIdsAreRefused) {
    expectBad({{9, 122, 32}, {0, 200, 5}}, "0, off: 200, len: 5");
    for (const uint32_t id : {16u, 19u, 0x80444555u, 0xffffffffu}) {
        expectBad({{id, 200, 5}}, "0, off: 200, len: 5");
    }
}

TEST_F(AdoubleRead, OffsetsEndAtTheRecord) {
    expectGood({{9, 1023, 1}});
    expectGood({{9, 1023, 0}});
    expectBad({{9, 1024, 0}}, "9, off: 1024, len: 0");
    expectBad({{2, 1024, 0}}, "2, off: 1024, len: 0");
    expectBad({{0x8053567E, 0xffffffff, 1}}, "2152945278, off: 4294967295, len: 1");
}

TEST_F(AdoubleRead, EntriesEndInTheRecord) {
    expectGood({{9, 122, 902}});
    expectGood({{4, 0, 1024}});
    expectBad({{9, 122, 903}}, "9, off: 122, len: 903");
    expectBad({{9, 1000, 0xffffffff}}, "9, off: 1000, len: 4294967295");
    expectBad({{9, 1023, 0xfffffc01}}, "9, off: 1023, len: 4294966273");
}

TEST_F(AdoubleRead, ResourceForkMayEndBeyond) {
    expectGood({{2, 741, 0xffffffff}});
    EXPECT_EQ(0xffffffffu, record.entries[2].length);
}

TEST_F(AdoubleRead, LastOfTwoEntriesWithOneIdCounts) {
    expectGood({{9, 122, 32}, {9, 200, 32}});
    EXPECT_EQ(200u, record.entries[9].offset);
}

TEST_F(AdoubleRead, AsManyEntriesAsFitAreRead) {
    // 83 entries end at byte 1022.
    expectGood(std::vector<Entry>(83, Entry{9, 122, 32}));
    std::string text = header(std::vector<Entry>(83, Entry{9, 122, 32}), 1024);
    text[24] = '\xff';
    text[25] = '\xff';
    EXPECT_FAILS(read(text), 0x0D00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "AdoubleEntriesParse: wrong eid: 0, off: 0, len: 0")) << kit::Log::all();
}

TEST_F(AdoubleRead, EntriesBehindTheBytesGivenAreNone) {
    expectBad({{9, 122, 32}, {4, 154, 0}}, "0, off: 0, len: 0", 26 + 12);
}

} // namespace
