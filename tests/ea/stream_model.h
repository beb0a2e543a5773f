// The stream file as plainly as possible: the bytes of the file are a string, a handle is what was read from it, and
// each operation does what the format says, step by step. It shares nothing with the library.
#pragma once

#include "tests/ea/stream_bytes.h"

#include <algorithm>
#include <cerrno>
#include <set>

namespace stream {

// What an operation answers. A failure has one of these codes.
struct Answer {
    int64_t result = 0;
    std::set<uint32_t> codes = {};
    int error = 0; // errno where it is part of the answer
    std::string bytes = {};
};
inline Answer refused(uint32_t code, int error = 0) {
    return {-1, {code}, error};
}

struct Entry {
    uint32_t id = 0, offset = 0, length = 0;
};
struct Record {
    uint32_t offset = 0, length = 0, flags = 0, nameLength = 0;
    std::string name; // nameLength bytes
    std::string text() const { return name.substr(0, name.find('\0')); }
    uint32_t size() const { return (11 + nameLength + 3) / 4 * 4; }
};

class Handle {
  public:
    uint32_t magic = 0x00051607, version = 0x00020000, entryCount = 2;
    std::string filler = "Mac OS X        ";
    Entry info = {9, 50, 32}, fork = {2, 82, 0};
    std::string finderInfo = zeros(32), padding = zeros(2), reserved = zeros(12);
    uint32_t attrMagic = 0x41545452, debugTag = 0, totalSize = 120, dataStart = 120, dataLength = 0, flags = 0;
    std::vector<Record> records;

    explicit Handle(std::string &content) : m_content(&content) {}

    // ---- Opening

    Answer open() {
        if (file().empty()) {
            return {};
        }
        if (file().size() < 26) {
            return refused(0x0A00);
        }
        magic = number32(0);
        version = number32(4);
        filler = file().substr(8, 16);
        entryCount = number16(24);
        if (entryCount > 13) {
            return refused(0x0D00);
        }
        if (file().size() < 26 + 12 * entryCount) {
            return refused(0x0A00);
        }
        info = fork = {};
        for (uint32_t at = 26; at < 26 + 12 * entryCount; at += 12) {
            const Entry entry = {number32(at), number32(at + 4), number32(at + 8)};
            if (entry.id == 9) {
                info = entry;
            } else if (entry.id == 2) {
                fork = entry;
            }
        }
        if (!isThere(info.offset, info.offset + uint64_t{32})) {
            return refused(0x0A00);
        }
        finderInfo = file().substr(info.offset, 32);
        if (info.length == 32) {
            totalSize = 0;
            return {};
        }
        return openAttributes();
    }

    // ---- Reading

    int search(const std::string &name) const {
        for (size_t at = records.size(); at > 0; --at) {
            if (records[at - 1].text() == name) {
                return static_cast<int>(at) - 1;
            }
        }
        return -1;
    }
    Answer read(const std::string &name, uint32_t size, uint32_t offset) const {
        const int index = search(name);
        if (index < 0) {
            return refused(0x2000);
        }
        const Record &record = records[static_cast<size_t>(index)];
        if (record.length < offset) {
            return {};
        }
        if (size == 0) {
            return record.length > INT32_MAX ? refused(0x0D00) : Answer{record.length};
        }
        const uint64_t count = std::min(size, record.length - offset);
        const uint64_t from = uint64_t{record.offset} + offset;
        if (count > 0 && !isThere(from, from + count)) {
            return refused(0x0A00);
        }
        return {static_cast<int64_t>(count), {}, 0, count > 0 ? file().substr(from, count) : ""};
    }

    // ---- Changing

    Answer write(const std::string &name, const std::string &data, uint32_t offset, int how) {
        if (name.size() > 254) {
            return refused(0x0D00);
        }
        const int index = search(name);
        if (index >= 0 && (how & 1) == 0) {
            return data.empty() ? Answer{0, {}, EEXIST} : refused(0x0D00, EEXIST);
        }
        if (index < 0 && (how & 2) != 0) {
            return refused(0x2000, ENOENT);
        }
        Answer answer = index < 0 ? add(name, data, offset) : overwrite(static_cast<size_t>(index), data, offset);
        if (answer.result == 0) {
            answer.result = static_cast<int64_t>(data.size());
        }
        return answer;
    }
    Answer truncate(const std::string &name, uint32_t length) {
        const int index = search(name);
        if (index < 0) {
            return refused(0x2000);
        }
        const Record old = records[static_cast<size_t>(index)];
        const uint64_t total = uint64_t{dataLength} - old.length + length;
        Answer answer = refusals(dataStart + total, false);
        const uint64_t kept = std::min(old.length, length);
        need(answer, all(index));
        need(answer, {{old.offset, old.offset + kept}});
        if (answer.result < 0) {
            return answer;
        }
        std::string value = part(old.offset, old.offset + kept);
        value.resize(length);
        const std::string values = join(all(index)) + value;
        makeLast(static_cast<size_t>(index), length);
        dataLength = static_cast<uint32_t>(total);
        putHead();
        put(dataStart, values);
        return answer;
    }
    Answer remove(const std::string &name) {
        const int index = search(name);
        if (index < 0) {
            return {};
        }
        const Record old = records[static_cast<size_t>(index)];
        const uint64_t total = uint64_t{dataLength} - old.length;
        Answer answer = refusals(uint64_t{dataStart} - old.size() + total, true);
        need(answer, all(index));
        if (answer.result < 0) {
            return answer;
        }
        const std::string values = join(all(index));
        makeLast(static_cast<size_t>(index), old.length);
        dropLast();
        const uint64_t end = uint64_t{dataStart} + dataLength;
        const uint64_t forkLength = forkThatIsThere();
        moveFork(end, uint64_t{info.offset} + info.length, forkLength);
        putHead();
        put(dataStart, values);
        file().resize(end + forkLength);
        return answer;
    }

    // ---- The pieces

    // Gives the other values, and with `keep` its own behind them. The file stays.
    Answer update(size_t index, uint64_t room, bool keep) {
        const Record old = records[index];
        if (!isTidy()) {
            return refused(0x0A00);
        }
        if (room < uint64_t{dataLength} - (keep ? 0 : old.length)) {
            return refused(0x0100);
        }
        Answer answer;
        need(answer, all(static_cast<int>(index)));
        need(answer, {{old.offset, keep ? uint64_t{old.offset} + old.length : old.offset}});
        if (answer.result < 0) {
            return answer;
        }
        answer.bytes = join(all(static_cast<int>(index)));
        if (keep) {
            answer.bytes += part(old.offset, uint64_t{old.offset} + old.length);
        }
        makeLast(index, old.length);
        if (!keep) {
            dropLast();
        }
        return answer;
    }
    Answer writeHeader() {
        const uint64_t end = uint64_t{dataStart} + dataLength;
        if (end > UINT32_MAX || end < (info.id == 9 ? 50 : info.offset)) {
            return refused(0x0D00);
        }
        putHead();
        return {};
    }
    Answer writeFinderInfo() {
        if (info.id != 9) {
            return refused(0x0A00);
        }
        put(info.offset, finderInfo);
        return {};
    }
    Answer moveForkTo(uint64_t to, uint64_t from, uint64_t length) {
        if (length > 0 && to > from && length > file().size()) {
            return refused(0x0A00);
        }
        moveFork(to, from, length);
        return {};
    }

  private:
    std::string &file() const { return *m_content; }
    using Parts = std::vector<std::pair<uint64_t, uint64_t>>;

    uint32_t number32(size_t at) const { return number16(at) << 16 | number16(at + 2); }
    uint32_t number16(size_t at) const { return byte(at) << 8 | byte(at + 1); }
    uint32_t byte(size_t at) const { return static_cast<unsigned char>(file()[at]); }
    bool isThere(uint64_t from, uint64_t to) const { return from <= to && to <= file().size(); }
    std::string part(uint64_t from, uint64_t to) const {
        return from == to ? std::string() : file().substr(from, to - from);
    }
    void put(uint64_t at, const std::string &bytes) {
        if (!bytes.empty()) {
            file().resize(std::max<size_t>(file().size(), at + bytes.size()));
            file().replace(at, bytes.size(), bytes);
        }
    }

    Answer openAttributes() {
        if (file().size() < 120) {
            return refused(0x0A00);
        }
        padding = file().substr(82, 2);
        attrMagic = number32(84);
        debugTag = number32(88);
        totalSize = number32(92);
        dataStart = number32(96);
        dataLength = number32(100);
        reserved = file().substr(104, 12);
        flags = number16(116);
        size_t at = 120;
        for (uint32_t left = number16(118); left > 0; --left) {
            if (at + 11 > file().size() || at + 11 + byte(at + 10) > file().size()) {
                return refused(0x0A00);
            }
            Record record = {number32(at), number32(at + 4), number16(at + 8), byte(at + 10), {}};
            record.name = file().substr(at + 11, record.nameLength);
            records.push_back(record);
            at += record.size();
        }
        return {};
    }

    // The values lie back to back, in the order of the records and behind them.
    bool isTidy() const {
        if (records.empty() && dataLength == 0) {
            return true;
        }
        uint64_t start = 120;
        uint64_t length = 0;
        bool tidy = true;
        for (const Record &record : records) {
            tidy = tidy && record.offset == dataStart + length;
            start += record.size();
            length += record.length;
        }
        return tidy && start <= dataStart && length == dataLength;
    }
    // What refuses any change whose values end at `end`.
    Answer refusals(uint64_t end, bool movesFork) const {
        Answer answer;
        uint64_t recordsEnd = 120;
        for (const Record &record : records) {
            recordsEnd += record.size();
        }
        if (!isTidy() || (!records.empty() && dataStart > std::max<uint64_t>(file().size(), recordsEnd))) {
            answer.codes.insert(0x0A00);
        }
        if (end > UINT32_MAX) {
            answer.codes.insert(0x0D00);
        }
        if (movesFork && info.id != 9) {
            answer.codes.insert(0x0A00);
        }
        if (movesFork && uint64_t{info.offset} + info.length > UINT32_MAX) {
            answer.codes.insert(0x0D00);
        }
        answer.result = answer.codes.empty() ? 0 : -1;
        return answer;
    }
    void need(Answer &answer, const Parts &parts) const {
        for (const auto &[from, to] : parts) {
            if (from != to && !isThere(from, to)) {
                answer.codes.insert(0x0A00);
                answer.result = -1;
            }
        }
    }
    // Where all values lie but the one at `index`.
    Parts all(int index) const {
        Parts parts;
        for (size_t at = 0; at < records.size(); ++at) {
            if (static_cast<int>(at) != index) {
                parts.emplace_back(records[at].offset, uint64_t{records[at].offset} + records[at].length);
            }
        }
        return parts;
    }
    std::string join(const Parts &parts) const {
        std::string bytes;
        for (const auto &[from, to] : parts) {
            bytes += part(from, to);
        }
        return bytes;
    }

    Answer add(const std::string &name, const std::string &data, uint32_t offset) {
        Record made = {0, 0, 0, static_cast<uint32_t>(name.size() + 1), name + '\0'};
        const uint64_t length = uint64_t{offset} + data.size();
        const uint64_t start = (records.empty() ? 120 : dataStart) + made.size();
        Answer answer = refusals(start + dataLength + length, true);
        need(answer, all(-1));
        if (records.size() == 65535) {
            answer = refused(0x0D00);
        }
        if (answer.result < 0) {
            return answer;
        }
        const std::string values = join(all(-1)) + zeros(offset) + data;
        for (Record &record : records) {
            record.offset += made.size();
        }
        dataStart = static_cast<uint32_t>(start);
        made.offset = dataStart + dataLength;
        made.length = static_cast<uint32_t>(length);
        records.push_back(made);
        dataLength += made.length;
        commit(values);
        return answer;
    }
    Answer overwrite(size_t index, const std::string &data, uint32_t offset) {
        const Record old = records[index];
        const uint64_t end = uint64_t{offset} + data.size();
        const uint64_t length = std::max<uint64_t>(old.length, end);
        const uint64_t total = uint64_t{dataLength} - old.length + length;
        Answer answer = refusals(dataStart + total, true);
        const uint64_t from = old.offset + std::min<uint64_t>(old.length, offset);
        const uint64_t to = old.offset + std::min<uint64_t>(old.length, end);
        const Parts own = {{old.offset, from}, {to, uint64_t{old.offset} + old.length}};
        need(answer, all(static_cast<int>(index)));
        need(answer, own);
        if (answer.result < 0) {
            return answer;
        }
        std::string value = part(own[0].first, own[0].second);
        value.resize(std::max<size_t>(value.size(), offset));
        value += data + part(own[1].first, own[1].second);
        value.resize(length);
        const std::string values = join(all(static_cast<int>(index))) + value;
        makeLast(index, static_cast<uint32_t>(length));
        dataLength = static_cast<uint32_t>(total);
        commit(values);
        return answer;
    }
    void makeLast(size_t index, uint32_t length) {
        Record moved = records[index];
        records.erase(records.begin() + static_cast<std::ptrdiff_t>(index));
        moved.length = length;
        records.push_back(moved);
        uint32_t at = dataStart;
        for (Record &record : records) {
            record.offset = at;
            at += record.length;
        }
    }
    void dropLast() {
        const Record gone = records.back();
        records.pop_back();
        for (Record &record : records) {
            record.offset -= gone.size();
        }
        dataStart -= gone.size();
        dataLength -= gone.length;
    }
    // Of a length that the file cannot hold, what is there.
    uint64_t forkThatIsThere() const {
        const uint64_t at = uint64_t{info.offset} + info.length;
        const uint64_t there = file().size() > at ? file().size() - at : 0;
        return fork.length > file().size() ? there : fork.length;
    }
    void moveFork(uint64_t to, uint64_t from, uint64_t length) {
        if (length == 0 || to == from) {
            return;
        }
        if (to > from) {
            file().resize(std::max<size_t>(file().size(), to + length));
        }
        put(to, from < file().size() ? file().substr(from, length) : std::string());
    }
    void commit(const std::string &values) {
        moveFork(uint64_t{dataStart} + dataLength, uint64_t{info.offset} + info.length, forkThatIsThere());
        putHead();
        put(dataStart, values);
    }
    void putHead() {
        totalSize = fork.offset = dataStart + dataLength;
        info.offset = info.id == 9 ? 50 : info.offset;
        info.length = totalSize - info.offset;
        std::string head = number(magic, 4) + number(version, 4) + filler + number(entryCount, 2);
        for (const Entry &entry : {info, fork}) {
            head += number(entry.id, 4) + number(entry.offset, 4) + number(entry.length, 4);
        }
        head += finderInfo + padding + number(attrMagic, 4) + number(debugTag, 4) + number(totalSize, 4) +
                number(dataStart, 4) + number(dataLength, 4) + reserved + number(flags, 2) + number(records.size(), 2);
        for (const Record &record : records) {
            std::string bytes = number(record.offset, 4) + number(record.length, 4) + number(record.flags, 2) +
                                number(record.nameLength, 1) + record.name;
            bytes.resize(record.size());
            head += bytes;
        }
        put(0, head);
    }

    std::string *m_content;
};

} // namespace stream
