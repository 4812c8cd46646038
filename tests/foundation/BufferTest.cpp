#include <orv/Buffer.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Buffer, ShrinkingAboveHalfKeepsTheBlock) {
    orv::Buffer<unsigned char> buffer;
    buffer.resize(100, true);
    unsigned char* block = buffer.data();
    std::memset(block, 0xAB, 100);
    buffer.resize(60, true);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(buffer.size(), 60u);
    EXPECT_EQ(buffer.capacity(), 100u);
    // Growing back within the kept block's capacity is in place too.
    buffer.resize(99, true);
    EXPECT_EQ(buffer.data(), block);
}

TEST(Buffer, ShrinkingToHalfOrLessReallocatesExactly) {
    orv::Buffer<unsigned char> buffer;
    buffer.resize(100, true);
    for (int i = 0; i < 100; ++i)
        buffer.data()[i] = static_cast<unsigned char>(i);
    buffer.resize(40, true);
    EXPECT_EQ(buffer.size(), 40u);
    EXPECT_EQ(buffer.capacity(), 40u);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(buffer.data()[i], i);
}

TEST(Buffer, GrowingZeroFillsOnlyWhenAsked) {
    orv::Buffer<unsigned char> buffer;
    buffer.resize(4, true);
    std::memset(buffer.data(), 0x11, 4);
    buffer.resize(16, true);
    EXPECT_EQ(buffer.capacity(), 16u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(buffer.data()[i], 0x11);
    for (int i = 4; i < 16; ++i)
        EXPECT_EQ(buffer.data()[i], 0);
    buffer.resize(16, true); // same size: nothing
    EXPECT_EQ(buffer.capacity(), 16u);
    buffer.resize(0, true);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(buffer.capacity(), 0u);
}

TEST(Buffer, ViewOfCallerAreaMovesToOwnedBlockAndNeverFreesTheArea) {
    unsigned char area[32];
    for (int i = 0; i < 32; ++i)
        area[i] = static_cast<unsigned char>(100 + i);
    {
        orv::Buffer<unsigned char> buffer(area, sizeof area);
        EXPECT_EQ(buffer.capacity(), 0u);
        EXPECT_FALSE(buffer.ownsData());
        buffer.resize(5 * sizeof area, false);
        EXPECT_NE(buffer.data(), area);
        EXPECT_EQ(buffer.capacity(), 5 * sizeof area);
        for (int i = 0; i < 32; ++i)
            EXPECT_EQ(buffer.data()[i], 100 + i);
    }
    // A view that is released or destroyed leaves the area alone (freeing a
    // stack address would be caught by the sanitizer run).
    {
        orv::Buffer<unsigned char> buffer(area, sizeof area);
        buffer.release();
        EXPECT_EQ(buffer.data(), nullptr);
    }
    { orv::Buffer<unsigned char> buffer(area, sizeof area); }
    EXPECT_EQ(area[31], 131);
}

TEST(Buffer, AssignReusesTheBlockAboveHalfItsCapacity) {
    const unsigned char bytes[100] = {1, 2, 3};
    orv::Buffer<unsigned char> buffer;
    buffer.assign(bytes, 100);
    unsigned char* block = buffer.data();
    buffer.assign(bytes, 51);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(buffer.size(), 51u);
    buffer.assign(bytes, 50);
    EXPECT_EQ(buffer.capacity(), 50u);
    EXPECT_EQ(buffer.data()[2], 3);
    buffer.assign(nullptr, 10);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data(), nullptr);
}

TEST(Buffer, CopyAndMove) {
    const unsigned char bytes[8] = {9, 8, 7, 6, 5, 4, 3, 2};
    orv::Buffer<unsigned char> a;
    a.assign(bytes, 8);
    orv::Buffer<unsigned char> b(a);
    EXPECT_NE(b.data(), a.data());
    EXPECT_EQ(std::memcmp(b.data(), bytes, 8), 0);
    orv::Buffer<unsigned char> c(std::move(a));
    EXPECT_EQ(a.data(), nullptr);
    EXPECT_EQ(c.size(), 8u);
}

} // namespace
