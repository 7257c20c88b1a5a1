// CStringArray against a vector of texts, its room, and which slots share one header.
#include <algorithm>
#include <string>
#include <vector>

#include <Windows/StringArray.h>

#include "models/Exercises.h"

namespace models {

namespace {

constexpr int kMostElements = 60;
const char kAlphabet[] = "abc";

class StringArray {
public:
    // Without a step of its own it grows by 1,024 strings, which takes longer than all else: few begin so.
    explicit StringArray(Choices& choices) : m_choices(choices) {
        if (choices.OneIn(16))
            return;
        m_growBy = choices.Between(1, 20);
        m_array.SetSize(0, m_growBy);
    }

    void Step() {
        const std::string text = m_choices.TextOf(kAlphabet, 6);
        const XString string(text.c_str());
        const int any = m_choices.Between(0, Size() + 3);
        const int held = std::min(any, Size() - 1);
        switch (m_choices.Below(8)) {
        case 0:
        case 1:
            Agree(m_array.Add(string), Size(), "Add");
            Resize(Size() + 1, -1);
            m_texts.back() = text;
            break;
        case 2:
            if (held >= 0) {
                m_array.ModifyAt(held, string);
                m_texts[static_cast<size_t>(held)] = text;
                Agree(m_array[held].m_pStrData, string.m_pStrData, "header of the stored element");
            }
            break;
        case 3:
            m_array.SetAtGrow(any, string);
            if (any >= Size())
                Resize(any + 1, -1);
            m_texts[static_cast<size_t>(any)] = text;
            break;
        case 4:
        case 5: {
            const int size = m_choices.Between(0, Size() + 10);
            const int growBy = m_choices.OneIn(4) ? m_choices.Between(0, 20) : -1;
            m_array.SetSize(size, growBy);
            Resize(size, growBy);
            break;
        }
        case 6: {
            const int count = m_choices.Between(-1, 3);
            m_array.InsertAt(any, string, count);
            if (count > 0) {
                const int moved = std::max(Size() - any, 0);
                Resize(std::max(any, Size()) + count, -1);
                std::move_backward(m_texts.begin() + any, m_texts.begin() + any + moved,
                                   m_texts.begin() + any + moved + count);
                std::fill_n(m_texts.begin() + any, count, text);
            }
            break;
        }
        default:
            if (held >= 0) {
                const int count = m_choices.Between(-1, 5);
                m_array.RemoveAt(held, count);
                if (count > 0) {
                    m_texts.erase(m_texts.begin() + held, m_texts.begin() + std::min(held + count, Size()));
                    if (m_texts.empty())
                        m_room = 0;
                }
            }
            break;
        }
        if (Size() > kMostElements || m_choices.OneIn(500)) {
            m_array.RemoveAll();
            m_texts.clear();
            m_room = 0;
        }
        Compare();
    }

private:
    int Size() const { return static_cast<int>(m_texts.size()); }

    void Resize(int size, int growBy) {
        if (growBy != -1)
            m_growBy = growBy;
        if (size == 0)
            m_room = 0;
        else if (m_room == 0)
            m_room = size;
        else if (size > m_room)
            m_room = std::max(size, m_room + (m_growBy != 0 ? m_growBy : 1024));
        m_texts.resize(static_cast<size_t>(size));
    }

    void Compare() const {
        Agree(m_array.GetSize(), Size(), "size");
        Agree(m_array.m_nMaxSize, m_room, "room");
        Agree(m_array.m_nGrowBy, m_growBy, "step");
        Agree(m_array.m_pData == nullptr, m_room == 0, "no storage");
        for (int i = 0; i < Size(); ++i)
            Agree(m_array.m_pData[i] == m_texts[static_cast<size_t>(i)].c_str(), true, "element");
    }

    Choices& m_choices;
    CStringArray m_array;
    std::vector<std::string> m_texts;
    int m_room = 0;
    int m_growBy = 0;
};

} // namespace

void ExerciseStringArray(Choices& choices, unsigned long operations) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    {
        StringArray array(choices);
        for (unsigned long i = 0; i < operations; ++i)
            array.Step();
    }
    Agree(XString::m_iObjCount, strings, "strings left");
    Agree(XStringData::m_iObjCount, headers, "headers left");
}

} // namespace models
