// Random sequences of operations on AppleDouble headers, in the metadata attribute and in the resource file, sound and
// hostile, held against a plain model of both that shares nothing with the library.
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_model.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/seeds.h"

#include <algorithm>
#include <array>
#include <random>
#include <set>

namespace {

using adouble_bytes::Entry;
using adouble_bytes::number;

// A header as it is parsed: the text says each step.
class Header {
  public:
    std::string raw;
    std::array<std::pair<uint64_t, uint64_t>, 20> slots{};

    // 0, or the code.
    uint32_t parse(const std::string &bytes) {
        raw = bytes;
        raw.resize(1024);
        if (at32(0) != 0x00051607 || at32(4) != 0x00020000) {
            return 0x0A00;
        }
        for (size_t index = 0; index < count(); ++index) {
            const size_t at = 26 + 12 * index;
            const uint32_t id = at32(at);
            const int slot = slotOf(id);
            if (slot <= 0) {
                return 0x0D00;
            }
            const uint64_t offset = at32(at + 4);
            const uint64_t length = at32(at + 8);
            slots[static_cast<size_t>(slot)] = {offset, length};
            if (offset > 1023 || (id != 2 && offset + length > 1024)) {
                return 0x0D00;
            }
        }
        return 0;
    }
    size_t count() const { return at32(22) & 0xffff; }
    bool isMetadata() const {
        bool all = count() == 8;
        for (const size_t slot : std::array<size_t, 8>{9, 4, 8, 14, 16, 17, 18, 19}) {
            all = all && slots[slot].first != 0;
        }
        return all;
    }
    // The 402 bytes with its entries written anew.
    std::string encoded() const {
        std::string entries;
        size_t count = 0;
        for (size_t slot = 0; slot < 20; ++slot) {
            if (slot != 2 && slots[slot].first != 0) {
                entries += number(kIds[slot], 4) + number(slots[slot].first, 4) + number(slots[slot].second, 4);
                ++count;
            }
        }
        const std::string head = raw.substr(0, 24) + number(count, 2) + entries;
        return (head + raw.substr(head.size())).substr(0, 402);
    }

  private:
    static constexpr uint32_t kIds[20] = {0,  1,  2,  3,  4,  5,  6,          7,          8,          9,
                                          10, 11, 12, 13, 14, 15, 0x80444556, 0x80494E4F, 0x8053594E, 0x8053567E};
    static int slotOf(uint32_t id) {
        for (int slot = 0; slot < 20; ++slot) {
            if (kIds[slot] == id) {
                return slot;
            }
        }
        return -1;
    }
    uint32_t at32(size_t at) const {
        uint32_t value = 0;
        for (size_t next = at; next < at + 4; ++next) {
            value = value << 8 | (next < raw.size() ? static_cast<unsigned char>(raw[next]) : 0);
        }
        return value;
    }
};

class AdoubleModel : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, as which directories of companions are made";
        }
        kit::writeFile(path, "data");
        kit::PlatformDouble::setType(scratch.path(), 2);
        ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    }

    uint32_t upTo(uint64_t most) { return static_cast<uint32_t>(m_random() % (most + 1)); }
    bool oneIn(uint32_t count) { return upTo(count - 1) == 0; }

    std::string drawHeader() {
        static const std::vector<uint32_t> ids = {9,          2,          4, 8, 14, 0x80444556, 0x80494E4F,
                                                  0x8053594E, 0x8053567E, 0, 1, 15, 16,         0xffffffff};
        static const std::vector<uint32_t> places = {0,   1,    25,   50,   82,   122,  371,        402,
                                                     741, 1000, 1023, 1024, 1025, 4096, 0x7fffffff, 0xffffffff};
        std::string text = adouble_bytes::metadata();
        if (oneIn(2)) {
            std::vector<Entry> entries;
            for (uint32_t left = upTo(oneIn(10) ? 90 : 9); left > 0; --left) {
                const uint32_t id = ids[upTo(oneIn(4) ? ids.size() - 1 : 8)];
                const uint32_t offset = oneIn(4) ? places[upTo(places.size() - 1)] : upTo(900);
                const uint32_t length = oneIn(4) ? places[upTo(places.size() - 1)] : upTo(64);
                entries.push_back({id, offset, length});
            }
            if (oneIn(4)) { // all that the attribute has, and those behind them
                entries.insert(entries.begin(), adouble_bytes::kMetadata.begin(), adouble_bytes::kMetadata.end());
            }
            text = adouble_bytes::header(entries, 402 + upTo(600));
        }
        for (uint32_t left = oneIn(3) ? upTo(3) : 0; left > 0; --left) {
            text[upTo(oneIn(3) ? text.size() - 1 : 130)] = static_cast<char>(upTo(16));
        }
        const uint32_t shape = upTo(9);
        text.resize(shape < 6 ? 402 : shape < 8 ? 741 + upTo(1) : shape == 8 ? 1024 : upTo(1024));
        return text;
    }
    std::string drawInfo() { return oneIn(4) ? std::string(32, '\0') : kit::pattern(32, upTo(1000)); }

    // ---- The operations

    static void same(const std::string &what, int result, int wanted, const std::set<uint32_t> &codes = {}) {
        ASSERT_EQ(wanted, result) << what << std::hex << " code " << VLIBCErrGet();
        if (result < 0) {
            ASSERT_TRUE(codes.count(VLIBCErrGet()) == 1) << what << std::hex << " code " << VLIBCErrGet();
        }
    }
    static void sameRecord(const VEXOEAAdouble &record, const Header &wanted) {
        ASSERT_EQ(wanted.raw, std::string(reinterpret_cast<const char *>(record.raw), 1024));
        for (size_t slot = 0; slot < 20; ++slot) {
            ASSERT_EQ(wanted.slots[slot].first, record.entries[slot].offset) << slot;
            ASSERT_EQ(wanted.slots[slot].second, record.entries[slot].length) << slot;
        }
        ASSERT_EQ(0x00051607u, record.magic);
        ASSERT_EQ(0x00020000u, record.version);
    }
    void parse() {
        const std::string text = drawHeader();
        Header wanted;
        const uint32_t code = wanted.parse(text);
        VEXOEAAdouble record;
        same("parse", VEXOEAAdoubleRead(text.data(), static_cast<int>(text.size()), &record), code == 0 ? 0 : -1,
             {code});
        if (code == 0) {
            sameRecord(record, wanted);
        }
    }
    void readResource() {
        Header wanted;
        const bool isShort = !m_resource || m_resource->size() < 741;
        const uint32_t code = isShort ? 0 : wanted.parse(m_resource->substr(0, 741));
        VEXOEAAdouble record;
        const int result = VEXOEAEADirAdoubleRead(path.c_str(), &record);
        same("read resource", result, isShort ? 1 : code == 0 ? 0 : -1, {code});
        if (result == 0) {
            sameRecord(record, wanted);
        }
    }
    // 0 found, 1 absent, -1.
    int metadataOf(Header &header) const {
        if (!m_metadata) {
            return 1;
        }
        return m_metadata->size() == 402 && header.parse(*m_metadata) == 0 && header.isMetadata() ? 0 : -1;
    }
    void readMetadata() {
        Header wanted;
        VEXOEAAdouble record;
        const int result = VEXOEAFileEAAdoubleRead(path.c_str(), &record);
        same("read metadata", result, metadataOf(wanted), {0x0A00});
        if (result == 0) {
            sameRecord(record, wanted);
        }
    }
    void flushResource() {
        const std::string text = drawHeader();
        same("flush resource", VEXOEAEADirAdoubleFlush(text.data(), static_cast<int>(text.size()), path.c_str()), 0);
        std::string now = m_resource.value_or("");
        now.resize(std::max(now.size(), text.size()));
        m_resource = now.replace(0, text.size(), text);
    }
    void flushMetadata() {
        m_metadata = oneIn(3) ? drawHeader() : adouble_bytes::metadata();
        same("flush metadata",
             VEXOEAFileEAAdoubleFlush(m_metadata->data(), static_cast<int>(m_metadata->size()), path.c_str()), 0);
    }
    void writeInfo() {
        const std::string info = drawInfo();
        std::string file = m_resource.value_or("");
        stream::Handle handle(file);
        stream::Answer wanted = handle.open();
        if (file.empty()) {
            file =
                adouble_bytes::header({{9, 50, 32}, {2, 82, 0}}, 50, 0x00051607, 0x00020000, "Mac OS X        ") + info;
        } else if (wanted.result == 0) {
            handle.finderInfo = info;
            wanted = handle.writeFinderInfo();
        }
        same("write Finder Info", VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()), static_cast<int>(wanted.result),
             wanted.codes);
        m_resource = file;
    }
    void sync() {
        std::string file = m_resource.value_or("");
        stream::Handle handle(file);
        const stream::Answer opened = handle.open();
        Header header;
        int wanted = opened.result < 0 ? -1 : metadataOf(header);
        if (wanted == 1) {
            ASSERT_EQ(0u, header.parse(adouble_bytes::metadata()));
            wanted = 0;
        }
        const auto [offset, length] = header.slots[9];
        const std::string info = handle.finderInfo;
        if (wanted == 0 && info != std::string(32, '\0')) {
            if (offset < 122 || offset + 32 > 402 || length < 32) {
                wanted = -1; // it would lead into the header or out of the attribute
            } else {
                header.raw.replace(offset, 32, info);
            }
        }
        std::set<uint32_t> codes = opened.codes;
        codes.insert(0x0A00);
        same("sync", VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), wanted, codes);
        if (wanted == 0) {
            m_metadata = header.encoded();
        }
    }
    void fresh() {
        ::unlink(resource.c_str());
        m_resource.reset();
        if (oneIn(3)) {
            m_resource = stream::bytes({{"a", "value"}}, 5, drawInfo()) + "fork!" + std::string(upTo(900), 'r');
            kit::writeFile(resource, *m_resource);
        }
        if (oneIn(2)) {
            kit::writeFile(path + ".new", "data");
            ASSERT_EQ(0, ::rename((path + ".new").c_str(), path.c_str()));
            m_metadata.reset();
        }
    }
    void step() {
        const std::vector<void (AdoubleModel::*)()> all = {&AdoubleModel::parse,         &AdoubleModel::parse,
                                                           &AdoubleModel::readResource,  &AdoubleModel::readMetadata,
                                                           &AdoubleModel::writeInfo,     &AdoubleModel::flushResource,
                                                           &AdoubleModel::flushMetadata, &AdoubleModel::sync,
                                                           &AdoubleModel::sync,          &AdoubleModel::fresh};
        VLIBCErrSetEx(0, "", 0);
        (this->*all[upTo(all.size() - 1)])();
        ASSERT_EQ(m_resource.has_value(), kit::exists(resource));
        ASSERT_TRUE(!m_resource || *m_resource == kit::readFile(resource));
        ASSERT_EQ(m_metadata.value_or(""), kit::attribute(path, "user.netatalk.Metadata"));
    }

    const std::string path = scratch / "file";
    const std::string resource = scratch / "@eaDir/file@VexoResource";
    std::mt19937 m_random;
    std::optional<std::string> m_resource, m_metadata;
};

TEST_F(AdoubleModel, RandomScenes) {
    for (const uint32_t seed : kit::seeds(200, 5000)) {
        SCOPED_TRACE(kit::repeat(seed));
        m_random.seed(seed);
        for (int left = 60; left > 0 && !HasFatalFailure(); --left) {
            SCOPED_TRACE("step " + std::to_string(60 - left));
            step();
            kit::Log::reset();
        }
        if (HasFailure()) {
            return;
        }
    }
}

} // namespace
