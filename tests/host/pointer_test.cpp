#include "TilegridOps/host/ptr.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

namespace tilegrid::test {
namespace {

using Corvid::makeMutable;
using Corvid::MutablePtr;
using Corvid::Ptr;
using Corvid::toMutable;

/// Counts the objects alive, and the copies made.
struct Counted {
    static inline int alive = 0, copies = 0;
    int value = 0;
    explicit Counted(int v = 0) : value(v) { ++alive; }
    Counted(Counted const& other) : value(other.value)
    {
        ++alive;
        ++copies;
    }
    Counted& operator=(Counted const&) = default;
    virtual ~Counted() { --alive; }
};
struct Front {
    virtual ~Front() = default;
    long padding[3] = {1, 2, 3};
};
/// Its `Counted` part does not lie at the beginning.
struct Derived : Front, Counted {
    int more = 0;
    explicit Derived(int v = 0, int m = 0) : Counted(v), more(m) {}
};

class Pointer : public ::testing::Test {
protected:
    Pointer() { Counted::alive = Counted::copies = 0; }
    ~Pointer() override { EXPECT_EQ(Counted::alive, 0) << "something was leaked or destroyed twice"; }
};

TEST_F(Pointer, counts_its_holders_and_destroys_the_object_with_the_last)
{
    Ptr<Counted> a = makeMutable<Counted>(5);
    EXPECT_EQ(a.useCount(), 1);
    {
        const Ptr<Counted> b = a;
        EXPECT_EQ(a.useCount(), 2);
        EXPECT_TRUE(a == b);
        EXPECT_EQ(b->value, 5);
    }
    EXPECT_EQ(a.useCount(), 1);
    EXPECT_EQ(Counted::alive, 1);
    a.reset();
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(a.useCount(), 0);
    EXPECT_TRUE(a == nullptr);
}

TEST_F(Pointer, to_mutable_of_null_is_null)
{
    Ptr<Counted> none;
    EXPECT_FALSE(toMutable(none));
    EXPECT_FALSE(none);
}

TEST_F(Pointer, to_mutable_moves_the_object_out_of_its_only_holder_without_a_copy)
{
    Ptr<Counted> only = makeMutable<Counted>(3);
    Counted const* object = only.get();
    const MutablePtr<Counted> owner = toMutable(only);
    EXPECT_EQ(owner.get(), object);
    EXPECT_FALSE(only);
    EXPECT_EQ(Counted::copies, 0);
}

TEST_F(Pointer, to_mutable_clones_a_shared_object_and_gives_up_its_share)
{
    Ptr<Counted> one = makeMutable<Counted>(3), other = one;
    Counted const* object = one.get();
    MutablePtr<Counted> owner = toMutable(one);
    EXPECT_FALSE(one);
    EXPECT_NE(owner.get(), object);
    EXPECT_EQ(Counted::copies, 1);
    owner->value = 9;
    EXPECT_EQ(other->value, 3);
    EXPECT_EQ(other.get(), object);
    EXPECT_EQ(other.useCount(), 1);
}

TEST_F(Pointer, to_mutable_through_a_base_that_lies_inside_clones_the_whole_object)
{
    Ptr<Counted> base = MutablePtr<Counted>(makeMutable<Derived>(4, 44)), other = base;
    EXPECT_NE(static_cast<void const*>(base.get()), dynamic_cast<void const*>(base.get()))
        << "the base must lie at an offset here";
    MutablePtr<Counted> owner = toMutable(base);
    auto* derived = dynamic_cast<Derived*>(owner.get());
    ASSERT_NE(derived, nullptr);
    EXPECT_EQ(derived->value, 4);
    EXPECT_EQ(derived->more, 44);
    EXPECT_EQ(derived->padding[2], 3);
    EXPECT_NE(owner.get(), other.get());
}

TEST_F(Pointer, to_mutable_of_an_object_that_cannot_be_copied_works_for_its_only_holder)
{
    struct NotCopyable {
        explicit NotCopyable(int v) : value(v) {}
        NotCopyable(NotCopyable const&) = delete;
        int value;
    };
    Ptr<NotCopyable> only = makeMutable<NotCopyable>(8);
    EXPECT_EQ(toMutable(only)->value, 8);
}

TEST_F(Pointer, assignment_of_an_owner_to_a_holder_replaces_and_destroys_the_old_object)
{
    Ptr<Counted> holder = makeMutable<Counted>(1);
    MutablePtr<Counted> owner = makeMutable<Counted>(2);
    Counted const* object = owner.get();
    holder = std::move(owner);
    EXPECT_FALSE(owner);
    EXPECT_EQ(holder.get(), object);
    EXPECT_EQ(holder.useCount(), 1) << "no other reference is taken";
    EXPECT_EQ(Counted::alive, 1);
}

TEST_F(Pointer, assignment_leaves_an_object_alone_that_others_hold)
{
    Ptr<Counted> holder = makeMutable<Counted>(1);
    const Ptr<Counted> other = holder;
    holder = makeMutable<Counted>(2);
    EXPECT_EQ(other->value, 1);
    EXPECT_EQ(other.useCount(), 1);
    EXPECT_EQ(Counted::alive, 2);
}

TEST_F(Pointer, assignment_to_itself_changes_nothing)
{
    Ptr<Counted> holder = makeMutable<Counted>(1);
    auto& same = holder;
    holder = same;
    EXPECT_EQ(holder->value, 1);
    EXPECT_EQ(holder.useCount(), 1);
    holder = std::move(same);
    EXPECT_EQ(holder->value, 1);
    EXPECT_EQ(holder.useCount(), 1);
    holder = toMutable(holder);
    EXPECT_EQ(holder->value, 1);
    EXPECT_EQ(Counted::copies, 0);
    MutablePtr<Counted> owner = toMutable(holder);
    auto& sameOwner = owner;
    owner = std::move(sameOwner);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->value, 1);
}

TEST_F(Pointer, assignment_of_a_part_of_the_object_itself_is_safe)
{
    // The old object holds the only other share of the new one.
    struct Node {
        Ptr<Node> next;
        Counted counted{7};
    };
    auto first = makeMutable<Node>();
    first->next = makeMutable<Node>();
    Ptr<Node> list = std::move(first);
    list = list->next;
    EXPECT_EQ(list.useCount(), 1);
    EXPECT_FALSE(list->next);
    EXPECT_EQ(Counted::alive, 1);
    list.reset();
}

TEST_F(Pointer, cast_shares_the_object_or_gives_null)
{
    const Ptr<Counted> base = MutablePtr<Counted>(makeMutable<Derived>(4, 5)), plain = makeMutable<Counted>(1);
    const Ptr<Derived> derived = Corvid::dynamicPointerCast<Derived>(base);
    ASSERT_TRUE(derived);
    EXPECT_EQ(derived->more, 5);
    EXPECT_EQ(base.useCount(), 2);
    EXPECT_FALSE(Corvid::dynamicPointerCast<Derived>(plain));
    EXPECT_EQ(plain.useCount(), 1);
    EXPECT_FALSE(Corvid::dynamicPointerCast<Derived>(Ptr<Counted>()));
}

TEST_F(Pointer, cast_of_an_owner_keeps_its_object_if_it_fails)
{
    MutablePtr<Counted> plain = makeMutable<Counted>(6), derived = makeMutable<Derived>(1, 2);
    EXPECT_FALSE(Corvid::dynamicPointerCast<Derived>(std::move(plain)));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->value, 6);
    const MutablePtr<Derived> cast = Corvid::dynamicPointerCast<Derived>(std::move(derived));
    ASSERT_TRUE(cast);
    EXPECT_EQ(cast->more, 2);
    EXPECT_FALSE(derived);
}

TEST_F(Pointer, holds_an_object_whose_type_is_forgotten)
{
    const Ptr<void> any = makeMutable<Counted>(12);
    const Ptr<void> other = any;
    EXPECT_EQ(static_cast<Counted const*>(any.get())->value, 12);
    EXPECT_EQ(other.useCount(), 2);
}

TEST(PointerThreads, count_right_when_copies_come_and_go_on_many_threads)
{
    struct Watched {
        std::atomic<int>* destroyed;
        ~Watched() { ++*destroyed; }
    };
    std::atomic<int> destroyed{0};
    for (int round = 0; round < 20; ++round) {
        Ptr<Watched> shared = MutablePtr<Watched>(new Watched{&destroyed});
        std::array<std::thread, 8> threads;
        for (std::thread& thread : threads)
            thread = std::thread([copy = shared] {
                for (int n = 0; n < 2000; ++n) {
                    Ptr<Watched> mine = copy;
                    const Ptr<Watched> another = mine;
                    mine.reset();
                }
            });
        shared.reset();  // the last share ends on one of the threads
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(destroyed, round + 1);
    }
}

}  // namespace
}  // namespace tilegrid::test
