// CPtrArray against a vector and its capacity.
#include <algorithm>
#include <vector>

#include <Windows/PtrArray.h>

#include "models/Exercises.h"

namespace models {

namespace {

constexpr int kMostElements = 100;

class PointerArray {
public:
    explicit PointerArray(Choices& choices) : m_choices(choices) {}

    void Step() {
        const int index = m_choices.Between(-2, Size() + 3);
        void* pointer = AnyPointer();
        switch (m_choices.Below(12)) {
        case 0:
        case 1:
        case 2:
            Agree(m_array.Add(pointer), Size(), "Add");
            Append(pointer);
            break;
        case 3:
            m_array.SetAt(index, pointer);
            if (Has(index))
                m_elements[static_cast<size_t>(index)] = pointer;
            break;
        case 4:
            m_array[index] = pointer;
            (Has(index) ? m_elements[static_cast<size_t>(index)] : s_bad) = pointer;
            break;
        case 5:
            Agree(m_array[index], Has(index) ? m_elements[static_cast<size_t>(index)] : s_bad, "[]");
            break;
        case 6:
            Agree(m_array.GetAt(index), Has(index) ? m_elements[static_cast<size_t>(index)] : nullptr,
                  "GetAt");
            break;
        case 7:
            SetSize(m_choices.Between(-1, Size() + 40), m_choices.Between(-3, 20));
            break;
        case 8:
            Grow(m_choices.Between(-3, m_capacity + 20));
            break;
        case 9:
            m_array.SetAtGrow(index, pointer);
            SetAtGrow(index, pointer);
            break;
        case 10: {
            const int count = m_choices.Between(-1, 4);
            m_array.InsertAt(index, pointer, count);
            InsertAt(index, pointer, count);
            break;
        }
        default: {
            const int count = m_choices.Between(-1, 6);
            m_array.RemoveAt(index, count);
            RemoveAt(index, count);
            break;
        }
        }
        if (Size() > kMostElements || m_choices.OneIn(300)) {
            m_array.RemoveAll();
            m_elements.clear();
            m_capacity = -1;
            m_hasStorage = false;
        }
        Compare();
    }

private:
    int Size() const { return static_cast<int>(m_elements.size()); }

    bool Has(int index) const { return index >= 0 && index < Size(); }

    void* AnyPointer() { return m_choices.OneIn(8) ? nullptr : &m_targets[m_choices.Below(8)]; }

    void Append(void* pointer) {
        if (!m_hasStorage || Size() == m_capacity)
            Grown(std::max(m_capacity, 0) + 16);
        m_elements.push_back(pointer);
    }

    void Grown(int capacity) {
        m_capacity = capacity;
        m_hasStorage = true;
    }

    void Grow(int capacity) {
        if (capacity == -1)
            capacity = 16 + std::max(m_capacity, 0);
        const bool grows = capacity > m_capacity;
        const int asked = capacity;
        Agree(m_array.Grow(asked), grows, "Grow");
        if (grows)
            Grown(capacity);
    }

    void SetSize(int size, int growBy) {
        m_array.SetSize(size, growBy);
        SizeSet(size, growBy);
    }

    // Room only; -1 as the result of the division means one step more, as in Grow.
    void SizeSet(int size, int growBy) {
        const int held = m_hasStorage ? Size() : -1;
        if (held >= size || growBy == 0)
            return;
        int capacity = growBy + size / growBy * growBy;
        if (capacity == -1)
            capacity = 16 + std::max(m_capacity, 0);
        if (capacity > m_capacity)
            Grown(capacity);
    }

    void SetAtGrow(int index, void* pointer) {
        if (index < 0)
            return;
        SizeSet(index, 16);
        while (Size() <= index)
            Append(nullptr);
        m_elements[static_cast<size_t>(index)] = pointer;
    }

    void InsertAt(int index, void* pointer, int count) {
        if (index < 0 || count < 1)
            return;
        const auto tail = std::vector<void*>(m_elements.begin() + std::min(index, Size()), m_elements.end());
        SetAtGrow(index + static_cast<int>(tail.size()) + count - 1, nullptr);
        std::fill_n(m_elements.begin() + index, count, pointer);
        std::copy(tail.begin(), tail.end(), m_elements.begin() + index + count);
    }

    void RemoveAt(int index, int count) {
        if (!Has(index) || count < 1)
            return;
        m_elements.erase(m_elements.begin() + index, m_elements.begin() + std::min(index + count, Size()));
    }

    void Compare() const {
        Agree(m_array.GetSize(), Size(), "size");
        Agree(m_array.GetUpperBound(), Size() - 1, "upper bound");
        Agree(m_array.m_nSize, m_hasStorage ? Size() : -1, "size field");
        Agree(m_array.m_nMaxSize, m_capacity, "capacity");
        for (int i = 0; i < Size(); ++i)
            Agree(m_array[i], m_elements[static_cast<size_t>(i)], "element");
    }

    Choices& m_choices;
    char m_targets[8];
    CPtrArray m_array;
    std::vector<void*> m_elements;
    int m_capacity = -1;
    bool m_hasStorage = false;
    static void* s_bad; // what the library's arrays share for bad indexes
};

void* PointerArray::s_bad = nullptr;

} // namespace

void ExercisePointerArray(Choices& choices, unsigned long operations) {
    PointerArray array(choices);
    for (unsigned long i = 0; i < operations; ++i)
        array.Step();
}

} // namespace models
