// Long random sequences of changes, held against a model of the whole file: what the format says of values, and what
// the writers do on purpose with the resource fork behind them.
#include "tests/ea/stream_fixture.h"

#include <algorithm>
#include <random>

namespace {

// The file as bytes, and the attributes in it.
class Model {
  public:
    explicit Model(uint32_t forkLength) : m_forkLength(forkLength) {
        if (forkLength > 0) {
            m_fork = 120;
            m_file = stream::bytes({}, forkLength) + kit::pattern(forkLength, 77);
        }
    }

    void write(const std::string &name, const std::string &data, size_t offset) {
        std::string value = takeOut(name);
        if (value.size() < offset + data.size()) {
            value.resize(offset + data.size());
        }
        value.replace(offset, data.size(), data);
        m_attributes.emplace_back(name, value);
        moveFork();
        putHead();
    }
    void remove(const std::string &name) {
        if (!has(name)) {
            return;
        }
        (void)takeOut(name);
        moveFork();
        putHead();
        m_file.resize(m_fork + m_forkLength);
    }
    // The fork stays where it lies, the header says that it follows the values.
    void truncate(const std::string &name, size_t length) {
        std::string value = takeOut(name);
        value.resize(length);
        m_attributes.emplace_back(name, value);
        putHead();
        m_fork = head().size();
    }

    bool has(const std::string &name) const { return find(name) != m_attributes.end(); }
    size_t lengthOf(const std::string &name) const { return find(name)->second.size(); }
    const stream::Attributes &attributes() const { return m_attributes; }
    const std::string &file() const { return m_file; }

  private:
    std::string head() const { return stream::bytes(m_attributes, m_forkLength); }
    stream::Attributes::const_iterator find(const std::string &name) const {
        return std::find_if(m_attributes.begin(), m_attributes.end(), [&](const auto &a) { return a.first == name; });
    }
    std::string takeOut(const std::string &name) {
        const auto found = find(name);
        if (found == m_attributes.end()) {
            return {};
        }
        std::string value = found->second;
        m_attributes.erase(found);
        return value;
    }
    void moveFork() {
        const size_t to = head().size();
        if (m_forkLength > 0 && to != m_fork) {
            std::string fork = m_fork < m_file.size() ? m_file.substr(m_fork, m_forkLength) : std::string();
            if (to > m_fork) {
                fork.resize(m_forkLength);
                m_file.resize(std::max(m_file.size(), to + m_forkLength));
            }
            m_file.replace(to, fork.size(), fork);
        }
        m_fork = to;
    }
    void putHead() {
        const std::string bytes = head();
        m_file.resize(std::max(m_file.size(), bytes.size()));
        m_file.replace(0, bytes.size(), bytes);
    }

    stream::Attributes m_attributes;
    std::string m_file;
    uint32_t m_forkLength;
    size_t m_fork = 0;
};

class StreamModel : public StreamFile {
  protected:
    void run(uint32_t forkLength, uint32_t seed, int steps, size_t longest) {
        Model model(forkLength);
        put(model.file());
        std::mt19937 random(seed);
        const auto upTo = [&](size_t most) { return static_cast<size_t>(random() % (most + 1)); };
        const std::vector<std::string> names = {"a", "bb", "ccc", "dddd", "é", " ", "x\ny", std::string(254, 'n')};
        VEXOEAS *eas = open();
        for (int step = 0; step < steps; ++step) {
            const std::string &name = names[upTo(names.size() - 1)];
            const size_t choice = upTo(9);
            if (choice < 5) {
                const std::string data = kit::pattern(upTo(longest), static_cast<uint32_t>(step));
                const size_t offset = upTo(3) == 0 ? upTo(longest) : 0;
                ASSERT_EQ(static_cast<int>(data.size()), write(eas, name, data, static_cast<uint32_t>(offset)));
                model.write(name, data, offset);
            } else if (choice < 7) {
                ASSERT_EQ(0, VEXOEASRemove(eas, name.c_str()));
                model.remove(name);
            } else if (choice < 9 && model.has(name)) {
                const size_t length = upTo(1) == 0 ? upTo(model.lengthOf(name)) : upTo(longest);
                ASSERT_EQ(0, VEXOEASTruncate(eas, name.c_str(), static_cast<uint32_t>(length)));
                model.truncate(name, length);
            } else {
                ASSERT_EQ(0, VEXOEASClose(eas));
                ASSERT_EQ(model.attributes(), attributes());
                eas = open();
            }
            ASSERT_TRUE(model.file() == content()) << "step " << step << " seed " << seed;
        }
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(model.attributes(), attributes());
    }
};

TEST_F(StreamModel, WithoutFork) {
    run(0, 1, 3000, 40);
}
TEST_F(StreamModel, WithASmallFork) {
    run(10, 2, 3000, 40);
}
TEST_F(StreamModel, WithAForkOfSeveralChunks) {
    run(40000, 3, 1500, 3000);
}
TEST_F(StreamModel, ForkOfOneChunkAndValuesLargerThanIt) {
    run(16384, 4, 1500, 20000);
}
TEST_F(StreamModel, ManySeeds) {
    for (uint32_t seed = 100; seed < 140; ++seed) {
        run(seed % 3 == 0 ? 0 : seed * 5, seed, 100, seed * 3);
    }
}

} // namespace
