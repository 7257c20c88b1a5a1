#include <Windows/RefCountedObject.h>

#include <stddef.h>
#include <string.h>

#include <new>
#include <type_traits>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/recording_host.h"

namespace {

struct Layout {
    void* table;
    int count;
};

static_assert(std::is_polymorphic<CRefCountedObject>::value, "the destructor is virtual");
static_assert(std::has_virtual_destructor<CRefCountedObject>::value, "and so are those of derived classes");
static_assert(sizeof(CRefCountedObject) == sizeof(Layout), "the count is the only member");

// Counts its destructions, and how it was given back to which operator delete.
class Counted : public CRefCountedObject {
public:
    explicit Counted(int& destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { m_destroyed++; }

    // Read and written in memory, as the base class shows neither.
    int Count() const {
        int count;
        memcpy(&count, CountAddress(), sizeof(count));
        return count;
    }

    void SetCount(int count) { memcpy(CountAddress(), &count, sizeof(count)); }

private:
    char* CountAddress() const {
        const CRefCountedObject* base = this;
        return const_cast<char*>(reinterpret_cast<const char*>(base)) + offsetof(Layout, count);
    }

    int& m_destroyed;
};

} // namespace

TEST(RefCountedObject, Begins_with_one_reference) {
    int destroyed = 0;
    Counted object(destroyed);
    EXPECT_EQ(object.Count(), 1);
}

TEST(RefCountedObject, AddRef_adds_one) {
    int destroyed = 0;
    Counted object(destroyed);
    object.AddRef();
    EXPECT_EQ(object.Count(), 2);
    object.AddRef();
    EXPECT_EQ(object.Count(), 3);
}

TEST(RefCountedObject, A_single_release_deletes_an_object_that_was_never_shared) {
    int destroyed = 0;
    Counted* object = new Counted(destroyed);
    object->RealRelease();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedObject, Two_references_more_need_three_releases) {
    int destroyed = 0;
    Counted* object = new Counted(destroyed);
    object->AddRef();
    object->AddRef();

    object->RealRelease();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Count(), 2);
    object->RealRelease();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(object->Count(), 1);
    object->RealRelease();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedObject, Last_release_gives_the_memory_back) {
    int destroyed = 0;
    AllocationCounter counter;
    CRefCountedObject* object = new Counted(destroyed);
    object->RealRelease();
    const int deletes = counter.Deletes();
    const int balance = counter.Balance();
    EXPECT_EQ(deletes, 1);
    EXPECT_EQ(balance, 0);
}

TEST(RefCountedObject, Deleting_through_the_base_reaches_the_derived_destructor) {
    int destroyed = 0;
    CRefCountedObject* object = new Counted(destroyed);
    delete object;
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedObject, A_count_of_zero_or_below_goes_negative_and_nothing_is_deleted) {
    for (int before : {0, -1, -7}) {
        SCOPED_TRACE(before);
        int destroyed = 0;
        Counted object(destroyed);
        object.SetCount(before);
        object.RealRelease();
        EXPECT_EQ(object.Count(), before - 1);
        EXPECT_EQ(destroyed, 0);
    }
}

TEST(RefCountedObject, AddRef_of_a_negative_count_counts_on) {
    int destroyed = 0;
    Counted object(destroyed);
    object.SetCount(-2);
    object.AddRef();
    EXPECT_EQ(object.Count(), -1);
}

TEST(RefCountedObject, Destructor_ignores_the_count) {
    int destroyed = 0;
    Recorder::Clear();
    {
        Counted object(destroyed);
        object.AddRef();
        object.AddRef();
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(RefCountedObject, The_base_class_itself_can_be_made_and_released) {
    AllocationCounter counter;
    CRefCountedObject* object = new CRefCountedObject;
    object->AddRef();
    object->RealRelease();
    const int before = counter.Deletes();
    object->RealRelease();
    const int after = counter.Deletes();
    EXPECT_EQ(before, 0);
    EXPECT_EQ(after, 1);
}
