// The small values: path buffers, callbacks, error tables, types, big-endian fields.
#include "support/big_endian.h"
#include "support/callback.h"
#include "support/errno_table.h"
#include "support/fs_type.h"
#include "support/path_buffer.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

using namespace vexo;

// ---- PathBuffer

TEST(PathBuffer, JoinsAndAppends) {
    PathBuffer path;
    EXPECT_TRUE(path.empty());
    EXPECT_STREQ("", path.c_str());
    path.join("/volume1/dir", "name");
    EXPECT_STREQ("/volume1/dir/name", path.c_str());
    path.append(".").append("txt");
    EXPECT_EQ("/volume1/dir/name.txt", path.view());
    EXPECT_EQ(21u, path.length());
    path.join("/", "x"); // as "%s/%s" gives it
    EXPECT_STREQ("//x", path.c_str());
    EXPECT_FALSE(path.overflowed());
}

TEST(PathBuffer, Takes4095BytesAndRemembersMore) {
    const std::string fits(4095, 'a');
    PathBuffer path(fits);
    EXPECT_FALSE(path.overflowed());
    EXPECT_EQ(fits, path.c_str());
    path.append("");
    EXPECT_FALSE(path.overflowed());
    path.append("b");
    EXPECT_TRUE(path.overflowed());
    EXPECT_EQ(fits, path.c_str()) << "nothing is written behind the end";
    path.cut(10);
    path.append("x");
    EXPECT_TRUE(path.overflowed()) << "what was lost stays lost";
    path.clear();
    EXPECT_FALSE(path.overflowed());
    EXPECT_TRUE(path.empty());
    path.join(fits, "b");
    EXPECT_TRUE(path.overflowed());
    EXPECT_EQ(fits, path.view());
}

TEST(PathBuffer, CutsAndAdopts) {
    PathBuffer path("/a/b/c");
    path.cut(4);
    EXPECT_STREQ("/a/b", path.c_str());
    constexpr char filled[] = "/filled/by/a/function";
    std::memcpy(path.fill(), filled, sizeof filled);
    path.adopt();
    EXPECT_EQ("/filled/by/a/function", path.view());
    std::memset(path.fill(), 'z', PathBuffer::kSize); // by one that forgets the end
    path.adopt();
    EXPECT_EQ(4095u, path.length());
    EXPECT_EQ(std::string(4095, 'z'), path.c_str());
}

// ---- Callback

int addBare(int a, int b) {
    return a + b;
}

TEST(Callback, EmptyWhenTheSlotIs) {
    EXPECT_FALSE((Callback<int(int, int)>()));
    EXPECT_FALSE((Callback<int(int, int)>::bare(nullptr)));
    int data = 0;
    EXPECT_FALSE((Callback<int(int, int)>(nullptr, &data)));
}

TEST(Callback, BareAndWithData) {
    const auto bare = Callback<int(int, int)>::bare(addBare);
    ASSERT_TRUE(bare);
    EXPECT_EQ(5, bare(2, 3));
    int sum = 10;
    const Callback<int(int, int)> withData([](void *data, int a, int b) { return *static_cast<int *>(data) += a * b; },
                                           &sum);
    EXPECT_EQ(16, withData(2, 3));
    EXPECT_EQ(16, sum);
}

TEST(Callback, OrElseTakesTheFirstThatIsThere) {
    const Callback<int()> none;
    const auto one = Callback<int()>::bare([] { return 1; });
    const auto two = Callback<int()>::bare([] { return 2; });
    EXPECT_EQ(1, one.or_else(two)());
    EXPECT_EQ(2, none.or_else(two)());
    EXPECT_FALSE(none.or_else(none));
}

// ---- Tables

TEST(ErrnoTable, FindsRowsAndNothingElse) {
    static constexpr ErrnoRow rows[] = {{EIO, Error::io}, {ENOSPC, Error::no_space}};
    static_assert(find_error(rows, EIO) == Error::io);
    EXPECT_EQ(Error::no_space, find_error(rows, ENOSPC));
    EXPECT_FALSE(find_error(rows, EACCES).has_value());
    EXPECT_FALSE(find_error(rows, 0).has_value());
    EXPECT_FALSE(find_error({}, EIO).has_value());
}

TEST(ErrnoTable, TypeLookup) {
    for (const int number : {ENOENT, EIO, ENOTDIR}) {
        EXPECT_EQ(Error::io, find_error(kTypeLookupErrors, number)) << number;
    }
    EXPECT_EQ(Error::permission, find_error(kTypeLookupErrors, EACCES));
    EXPECT_FALSE(find_error(kTypeLookupErrors, EPERM).has_value());
}

TEST(ErrnoTable, Storage) {
    EXPECT_EQ(Error::device, find_error(kStorageErrors, EIO));
    EXPECT_EQ(Error::device, find_error(kStorageErrors, ENXIO));
    EXPECT_EQ(Error::host_down, find_error(kStorageErrors, EHOSTDOWN));
    EXPECT_FALSE(find_error(kStorageErrors, ENOENT).has_value());
}

TEST(ErrorCodes, HaveTheirNumbers) {
    const std::pair<Error, uint32_t> codes[] = {
        {Error::none, 0},
        {Error::out_of_memory_ea, 0x0100},
        {Error::out_of_memory, 0x0200},
        {Error::permission, 0x0300},
        {Error::lock, 0x0400},
        {Error::io, 0x0600},
        {Error::source_missing, 0x0700},
        {Error::rename_callback, 0x0800},
        {Error::open, 0x0900},
        {Error::read, 0x0A00},
        {Error::write, 0x0B00},
        {Error::invalid_argument, 0x0D00},
        {Error::host_down, 0x1100},
        {Error::attribute_missing, 0x2000},
        {Error::quota, 0x2400},
        {Error::seek, 0x2600},
        {Error::stat, 0x2700},
        {Error::rename_ea, 0x2800},
        {Error::no_space, 0x2900},
        {Error::file_operation, 0x2A00},
        {Error::remove, 0x3900},
        {Error::relocation_move, 0x3A00},
        {Error::short_write, 0x3B00},
        {Error::make_directory, 0x3C00},
        {Error::upgrade_format, 0x4000},
        {Error::device, 0x6C00},
        {Error::other, 0x8000},
        {Error::read_only, 0x8400},
        {Error::empty_base_name, 0x9A00},
        {Error::not_a_directory, 0xA000},
        {Error::is_directory, 0xA200},
        {Error::destination_exists, 0xA300},
        {Error::too_large_for_fat, 0xA400},
        {Error::cancelled, 0xA600},
        {Error::too_large, 0xAA00},
        {Error::share_missing, 0xBE00},
        {Error::value_too_large, 0xBF00},
        {Error::name_too_long, 0xC300},
        {Error::reflink_unsupported, 0xD900},
        {Error::owner_not_set, 0xFA00},
    };
    for (const auto &[error, code] : codes) {
        EXPECT_EQ(code, static_cast<uint32_t>(error));
    }
}

TEST(FsTypes, HaveTheirNumbers) {
    EXPECT_TRUE(is_type(-1, FsType::unknown));
    EXPECT_TRUE(is_type(0, FsType::fat));
    EXPECT_TRUE(is_type(3, FsType::btrfs));
    EXPECT_TRUE(is_type(12, FsType::remote));
    EXPECT_TRUE(is_type(18, FsType::exfat));
    EXPECT_TRUE(is_type(22, FsType::k7fs));
    EXPECT_FALSE(is_type(2, FsType::btrfs));
    for (int code = -1; code < 30; ++code) {
        EXPECT_EQ(code == 0 || code == 18, reserves_characters(code)) << code;
    }
}

// ---- Big-endian fields

TEST(BigEndian, ReadsWhatItWrote) {
    std::array<uint8_t, 20> block{};
    BigEndianWriter writer(block);
    writer.u8(0x12);
    writer.u16(0x3456);
    writer.u32(0x789ABCDE);
    writer.u64(0xF011223344556677);
    writer.bytes("abc", 3);
    writer.zeros(2);
    EXPECT_TRUE(writer.ok());
    EXPECT_EQ(20u, writer.position());
    const std::array<uint8_t, 20> expected = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 0x11, 0x22,
                                              0x33, 0x44, 0x55, 0x66, 0x77, 'a',  'b',  'c',  0,    0};
    EXPECT_EQ(expected, block);

    BigEndianReader reader(block);
    EXPECT_EQ(0x12, reader.u8());
    EXPECT_EQ(0x3456, reader.u16());
    EXPECT_EQ(0x789ABCDEu, reader.u32());
    EXPECT_EQ(0xF011223344556677u, reader.u64());
    std::array<char, 3> text{};
    reader.bytes(text.data(), 3);
    EXPECT_EQ("abc", std::string(text.data(), 3));
    reader.skip(1);
    EXPECT_EQ(19u, reader.position());
    EXPECT_TRUE(reader.ok());
    reader.seek(1);
    EXPECT_EQ(0x34, reader.u8());
}

TEST(BigEndian, ReadOutsideIsZeroAndRemembered) {
    const std::array<uint8_t, 3> block = {1, 2, 3};
    BigEndianReader reader(block, 1);
    EXPECT_EQ(0u, reader.u32());
    EXPECT_FALSE(reader.ok());
    EXPECT_EQ(1u, reader.position()) << "a field that is not there is not passed";
    EXPECT_EQ(0x0203, reader.u16());
    EXPECT_FALSE(reader.ok()) << "and the failure stays";
    char text[2] = {'x', 'y'};
    reader.bytes(text, 2);
    EXPECT_EQ(0, text[0]);
    EXPECT_EQ(0, text[1]);

    BigEndianReader outside(block, 4);
    EXPECT_EQ(0, outside.u8());
    EXPECT_FALSE(outside.ok());
    BigEndianReader wrapping(block, 2);
    wrapping.skip(std::numeric_limits<size_t>::max());
    EXPECT_FALSE(wrapping.ok());
    BigEndianReader atEnd(block, 3);
    atEnd.skip(0);
    EXPECT_TRUE(atEnd.ok());
}

TEST(BigEndian, WriteOutsideIsDroppedAndRemembered) {
    std::array<uint8_t, 4> block = {9, 9, 9, 9};
    BigEndianWriter writer{std::span(block).first(3)};
    writer.u32(0);
    EXPECT_FALSE(writer.ok());
    writer.u16(0x0102);
    writer.bytes("ab", 2);
    writer.zeros(2);
    EXPECT_EQ((std::array<uint8_t, 4>{1, 2, 9, 9}), block);
    EXPECT_FALSE(writer.ok());
    BigEndianWriter empty{std::span<uint8_t>{}};
    empty.bytes(nullptr, 0);
    empty.zeros(0);
    EXPECT_TRUE(empty.ok());
    empty.seek(5);
    empty.u8(1);
    EXPECT_FALSE(empty.ok());
}

} // namespace
