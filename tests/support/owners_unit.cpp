// The owners: each releases what it holds exactly once, and gives it up when asked.
#include "support/dir.h"
#include "support/dynamic_library.h"
#include "support/fd.h"
#include "support/heap.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

using namespace vexo;

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}
int openNull() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

class Owners : public kit::Behaviour {}; // each test also sees that no descriptor stays open

TEST_F(Owners, FdClosesAtItsEnd) {
    const int number = openNull();
    {
        const Fd fd(number);
        EXPECT_TRUE(fd);
        EXPECT_EQ(number, fd.get());
    }
    EXPECT_FALSE(isOpen(number));
}

TEST_F(Owners, EmptyFdHoldsNothing) {
    const Fd none;
    const Fd failed(-1);
    EXPECT_FALSE(none);
    EXPECT_FALSE(failed);
    EXPECT_EQ(-1, none.get());
    EXPECT_TRUE(Fd(::dup(0))) << "and 0 is a descriptor";
}

TEST_F(Owners, FdMovesAndReleases) {
    Fd first(openNull());
    const int number = first.get();
    Fd second(std::move(first));
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move): empty is what it is to be
    EXPECT_EQ(number, second.get());
    Fd third(openNull());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_EQ(number, third.get());
    Fd &self = third;
    third = std::move(self);
    EXPECT_TRUE(isOpen(number));
    EXPECT_EQ(number, third.release());
    EXPECT_FALSE(third);
    EXPECT_TRUE(isOpen(number));
    ::close(number);
}

TEST_F(Owners, FdResetClosesTheOldOne) {
    Fd fd(openNull());
    const int first = fd.get();
    const int next = openNull();
    fd.reset(next);
    EXPECT_FALSE(isOpen(first));
    EXPECT_EQ(next, fd.get());
    fd.reset();
    EXPECT_FALSE(isOpen(next));
    EXPECT_FALSE(fd);
}

TEST_F(Owners, FdSlotTakesAReplacement) {
    const int first = openNull();
    const int second = openNull();
    {
        Fd fd(first);
        ::close(*fd.slot());
        *fd.slot() = second;
        EXPECT_EQ(second, fd.get());
    }
    EXPECT_FALSE(isOpen(second));
}

TEST_F(Owners, DirListsAndCloses) {
    kit::writeFile(scratch / "a", "");
    kit::writeFile(scratch / "b", "");
    std::set<std::string> names;
    Dir directory(scratch.path().c_str());
    ASSERT_TRUE(directory);
    while (const dirent *entry = directory.read()) {
        names.insert(entry->d_name);
    }
    EXPECT_EQ((std::set<std::string>{".", "..", "a", "b"}), names);
    const int fd = ::dirfd(directory.get());
    Dir moved(std::move(directory));
    EXPECT_FALSE(directory); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(isOpen(fd));
    Dir other(::opendir("/"));
    const int replaced = ::dirfd(other.get());
    other = std::move(moved);
    EXPECT_FALSE(isOpen(replaced));
    other.close();
    other.close();
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(Owners, DirThatCannotBeOpenedIsEmpty) {
    const Dir directory((scratch / "none").c_str());
    EXPECT_FALSE(directory);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(Dir());
}

TEST_F(Owners, LibraryGivesItsFunctions) {
    const DynamicLibrary library("libm.so.6");
    ASSERT_TRUE(library);
    auto *const cosine = library.function<double(double)>("cos");
    ASSERT_NE(nullptr, cosine);
    EXPECT_EQ(1.0, cosine(0.0));
    EXPECT_EQ(nullptr, library.function<void()>("noSuchFunctionAnywhere"));
}

TEST_F(Owners, LibraryThatIsMissingIsEmpty) {
    const DynamicLibrary library((scratch / "none.so").c_str());
    EXPECT_FALSE(library);
}

// ---- Memory

TEST(HeapBuffer, ZeroedIsZeroAndOfItsSize) {
    HeapBuffer buffer = HeapBuffer::zeroed(4096);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(4096u, buffer.size());
    EXPECT_EQ(std::string(4096, '\0'), std::string(reinterpret_cast<const char *>(buffer.data()), buffer.size()));
}

TEST(HeapBuffer, SizeZeroIsNoFailure) {
    EXPECT_TRUE(HeapBuffer::zeroed(0));
    EXPECT_TRUE(HeapBuffer::uninitialised(0));
    EXPECT_EQ(0u, HeapBuffer::uninitialised(0).size());
    EXPECT_FALSE(HeapBuffer());
}

TEST(HeapBuffer, WithoutMemoryIsEmpty) {
    if (!kit::Faults::failAllocation(1, 2)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const HeapBuffer zeroed = HeapBuffer::zeroed(4096);
    const HeapBuffer plain = HeapBuffer::uninitialised(4096);
    EXPECT_FALSE(zeroed);
    EXPECT_FALSE(plain);
    EXPECT_EQ(0u, zeroed.size());
    EXPECT_EQ(0u, plain.size());
}

TEST(HeapBuffer, ResizeKeepsTheContent) {
    HeapBuffer buffer = HeapBuffer::zeroed(3);
    std::memcpy(buffer.data(), "abc", 3);
    ASSERT_TRUE(buffer.resize(100000));
    EXPECT_EQ(100000u, buffer.size());
    EXPECT_EQ(0, std::memcmp("abc", buffer.data(), 3));
    ASSERT_TRUE(buffer.resize(2));
    EXPECT_EQ(0, std::memcmp("ab", buffer.data(), 2));
    ASSERT_TRUE(buffer.resize(0));
    EXPECT_TRUE(buffer);
    EXPECT_EQ(0u, buffer.size());
    HeapBuffer fresh;
    ASSERT_TRUE(fresh.resize(10));
    EXPECT_EQ(10u, fresh.size());
}

TEST(HeapBuffer, FailedResizeLeavesItAsItWas) {
    HeapBuffer buffer = HeapBuffer::zeroed(3);
    std::memcpy(buffer.data(), "abc", 3);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_FALSE(buffer.resize(100000));
    EXPECT_EQ(3u, buffer.size());
    EXPECT_EQ(0, std::memcmp("abc", buffer.data(), 3));
}

TEST(HeapBuffer, Moves) {
    HeapBuffer first = HeapBuffer::zeroed(5);
    const uint8_t *data = first.data();
    HeapBuffer second(std::move(first));
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(0u, first.size());
    EXPECT_EQ(data, second.data());
    HeapBuffer third = HeapBuffer::zeroed(7);
    third = std::move(second);
    EXPECT_EQ(data, third.data());
    EXPECT_EQ(5u, third.size());
}

TEST(HeapString, OwnsACopy) {
    std::string original = "text";
    HeapString text(original.c_str());
    original[0] = 'n';
    EXPECT_STREQ("text", text.get());
    text.get()[0] = 'T';
    HeapString moved(std::move(text));
    EXPECT_FALSE(text); // NOLINT(bugprone-use-after-move)
    HeapString other("other");
    other = std::move(moved);
    EXPECT_STREQ("Text", other.get());
    char *released = other.release();
    EXPECT_FALSE(other);
    EXPECT_STREQ("Text", released);
    std::free(released);
}

TEST(HeapString, WithoutMemoryIsEmpty) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const HeapString text("text");
    EXPECT_FALSE(text);
}

} // namespace
