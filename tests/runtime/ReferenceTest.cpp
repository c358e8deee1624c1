#include "AtOnce.h"
#include "runtime/RCObject.h"
#include "runtime/UserDataMap.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace fodr {
namespace {

// Counts its likes, so that a leak and a double end are both seen.
struct Counted : RCObject {
    explicit Counted(int number = 0) : value(number) { ++alive; }
    ~Counted() override { --alive; }

    int value;
    static inline std::atomic<int> alive{0};
};

class References : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, Counted::alive); }
    void TearDown() override { EXPECT_EQ(0, Counted::alive); }
};

TEST_F(References, CountUpAndDown)
{
    auto *object = new Counted;
    EXPECT_EQ(0, Release(object)); // harmless without a reference
    EXPECT_EQ(1, AddRef(object));
    EXPECT_EQ(2, AddRef(object));
    EXPECT_EQ(1, Release(object));
    EXPECT_EQ(0, Release(object));
    EXPECT_EQ(0, Counted::alive);
}

TEST_F(References, PointersShareAndKeepTheCount)
{
    RCPtr<Counted> first(new Counted);
    RCPtr<Counted> second = first;
    RCPtr<RCObject> base = second;
    EXPECT_EQ(3, RefCount(first.Get()));
    RCPtr<Counted> &self = second;
    second = self;
    EXPECT_EQ(3, RefCount(first.Get()));
    RCPtr<Counted> moved = std::move(second);
    EXPECT_EQ(3, RefCount(first.Get()));
    EXPECT_FALSE(second); // NOLINT(bugprone-use-after-move)
    base = nullptr;
    AddRef(first.Get());
    RCPtr<Counted> adopted = RCPtr<Counted>::Adopt(first.Get());
    EXPECT_EQ(3, RefCount(first.Get()));
    first = new Counted(1);
    EXPECT_EQ(2, Counted::alive);
}

TEST_F(References, WeakPointersEndWithTheObject)
{
    RCPtr<Counted> object(new Counted(7));
    WkPtr<Counted> weak(object), copy = weak;
    EXPECT_EQ(GetWkReference(object.Get()), GetWkReference(object.Get()));
    EXPECT_EQ(1, RefCount(object.Get()));
    EXPECT_EQ(7, weak.Promote()->value);
    object = nullptr;
    EXPECT_FALSE(weak.Promote() || copy.Promote() || WkPtr<Counted>().Promote());
}

// Uses itself while it dies, as a destructor may that hands its object on: the lock must be free by then.
struct DyingUser : Counted {
    ~DyingUser() override
    {
        RCPtr<DyingUser> again(this);
        EXPECT_EQ(nullptr, GetWkReference(this));
        EXPECT_FALSE(WkPtr<DyingUser>(this).Promote());
        EXPECT_FALSE(weak.Promote());
    }
    WkPtr<DyingUser> weak;
};

TEST_F(References, ADyingObjectIsNeitherRevivedNorEndedTwice)
{
    RCPtr<DyingUser> object(new DyingUser);
    object->weak = WkPtr<DyingUser>(object);
}

TEST_F(References, OnePointerMayBeOverwrittenBySeveralThreads)
{
    RCPtr<Counted> shared;
    test::AtOnce(4, [&](int t) {
        for (int i = 0; i < 3000; ++i)
            shared = RCPtr<Counted>(new Counted(t));
    });
    EXPECT_EQ(1, Counted::alive);
}

TEST_F(References, PromotionAndLastReleaseDoNotRace)
{
    std::atomic<int> promoted{0};
    for (int i = 0; i < 500; ++i) {
        RCPtr<Counted> object(new Counted(i));
        WkPtr<Counted> weak(object);
        std::thread promoter([&promoted, weak, i] {
            while (RCPtr<Counted> strong = weak.Promote()) {
                ++promoted;
                EXPECT_EQ(i, strong->value);
            }
        });
        object = nullptr;
        promoter.join();
        EXPECT_FALSE(weak.Promote());
    }
}

TEST_F(References, NumbersResolveWhileTheObjectLives)
{
    RCPtr<UserDataMap<WkPtr<Counted>>> map(new UserDataMap<WkPtr<Counted>>);
    RCPtr<Counted> object(new Counted(3));
    const uint64_t key = map->Insert(object);
    EXPECT_EQ(UserDataSeed() >> 32, key >> 32);
    EXPECT_EQ(0u, UserDataSeed() & 0xFFFFFFFF);
    EXPECT_EQ(3, map->Find(key).Promote()->value);
    object = nullptr;
    EXPECT_FALSE(map->Find(key).Promote());
    EXPECT_EQ(1u, map->Count());
    map->Remove(key);
    map->Remove(key);
    EXPECT_EQ(0u, map->Count());
    EXPECT_FALSE(map->Find(key).Promote());
}

TEST_F(References, KeysOfSeveralThreadsDiffer)
{
    constexpr size_t kThreads = 4, kKeys = 200;
    UserDataMap<size_t> map;
    std::vector<uint64_t> keys(kThreads * kKeys);
    test::AtOnce(kThreads, [&](int t) {
        for (size_t i = 0, at = static_cast<size_t>(t) * kKeys; i < kKeys; ++i, ++at)
            keys[at] = map.Insert(at);
    });
    for (size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(i, map.Find(keys[i]));
}

TEST(Holder, FreesWhatItHolds)
{
    MemoryHolder empty;
    EXPECT_EQ(nullptr, empty.Get());
    MemoryHolder holder(malloc(8)); // the leak check tells whether it is freed
    EXPECT_NE(nullptr, holder.Get());
    *empty.Receive() = malloc(8);
}

} // namespace
} // namespace fodr
