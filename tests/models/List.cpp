// CObList against a vector.
#include <algorithm>
#include <iterator>
#include <vector>

#include <Windows/ObList.h>

#include "models/Exercises.h"

class CObject {};

namespace models {

namespace {

constexpr unsigned int kObjects = 8; // few, so that objects are in the list more than once
constexpr size_t kMostElements = 40;

struct Element {
    POSITION position;
    CObject* object;
};

class List {
public:
    explicit List(Choices& choices) : m_choices(choices) {}

    void Step() {
        switch (m_choices.Below(12)) {
        case 0:
            Insert(0, m_list.AddHead(m_object = AnyObject()));
            break;
        case 1:
            Insert(m_elements.size(), m_list.AddTail(m_object = AnyObject()));
            break;
        case 2: {
            const size_t at = AnyPlace();
            Insert(at < m_elements.size() ? at : 0, m_list.InsertBefore(At(at), m_object = AnyObject()));
            break;
        }
        case 3: {
            const size_t at = AnyPlace();
            Insert(at < m_elements.size() ? at + 1 : at, m_list.InsertAfter(At(at), m_object = AnyObject()));
            break;
        }
        case 4:
            if (!m_elements.empty())
                Agree(m_list.RemoveHead(), Erase(0), "RemoveHead");
            break;
        case 5:
            if (!m_elements.empty())
                Agree(m_list.RemoveTail(), Erase(m_elements.size() - 1), "RemoveTail");
            break;
        case 6:
        case 7:
            if (!m_elements.empty()) {
                const size_t at = AnyElement();
                m_list.RemoveAt(m_elements[at].position);
                Erase(at);
            }
            break;
        case 8:
            if (!m_elements.empty()) {
                Element& element = m_elements[AnyElement()];
                element.object = AnyObject();
                if (m_choices.OneIn(2))
                    m_list.SetAt(element.position, element.object);
                else
                    m_list.GetAt(element.position) = element.object;
            }
            break;
        case 9:
            Find();
            break;
        case 10: {
            const int index = m_choices.Between(-2, static_cast<int>(m_elements.size()) + 1);
            const bool exists = index >= 0 && index < static_cast<int>(m_elements.size());
            Agree(m_list.FindIndex(index), exists ? m_elements[static_cast<size_t>(index)].position : nullptr,
                  "FindIndex");
            break;
        }
        default:
            AddOther();
            break;
        }
        if (m_elements.size() > kMostElements || m_choices.OneIn(200)) {
            m_list.RemoveAll();
            m_elements.clear();
        }
        Compare();
    }

private:
    CObject* AnyObject() { return &m_objects[m_choices.Below(kObjects)]; }

    size_t AnyElement() { return m_choices.Below(static_cast<unsigned int>(m_elements.size())); }

    // An element, or the place behind the last, which has no position.
    size_t AnyPlace() { return m_choices.Below(static_cast<unsigned int>(m_elements.size()) + 1); }

    POSITION At(size_t place) const {
        return place < m_elements.size() ? m_elements[place].position : nullptr;
    }

    void Insert(size_t place, POSITION position) {
        m_elements.insert(m_elements.begin() + static_cast<std::ptrdiff_t>(place), {position, m_object});
    }

    CObject* Erase(size_t place) {
        CObject* object = m_elements[place].object;
        m_elements.erase(m_elements.begin() + static_cast<std::ptrdiff_t>(place));
        return object;
    }

    void Find() {
        const CObject* wanted = AnyObject();
        const size_t from = AnyPlace();
        const auto begin = m_elements.begin() + static_cast<std::ptrdiff_t>(At(from) ? from : 0);
        const auto found =
            std::find_if(begin, m_elements.end(), [&](const Element& e) { return e.object == wanted; });
        Agree(m_list.Find(const_cast<CObject*>(wanted), At(from)),
              found == m_elements.end() ? nullptr : found->position, "Find");
    }

    void AddOther() {
        CObList other;
        std::vector<CObject*> objects(m_choices.Below(4));
        for (CObject*& object : objects)
            other.AddTail(object = AnyObject());
        const bool atHead = m_choices.OneIn(2);
        atHead ? m_list.AddHead(&other) : m_list.AddTail(&other);
        Agree(other.GetCount(), static_cast<int>(objects.size()), "the other list's count");
        const size_t place = atHead ? 0 : m_elements.size();
        POSITION position = atHead ? m_list.GetHeadPosition() : m_list.GetTailPosition();
        if (!atHead)
            for (size_t i = 1; i < objects.size(); ++i)
                m_list.GetPrev(position);
        for (size_t i = 0; i < objects.size(); ++i) {
            m_object = objects[i];
            Insert(place + i, position);
            m_list.GetNext(position);
        }
    }

    void Compare() const {
        Agree(m_list.GetCount(), static_cast<int>(m_elements.size()), "count");
        Agree(m_list.IsEmpty(), m_elements.empty(), "empty");
        POSITION position = m_list.GetHeadPosition();
        for (const Element& element : m_elements) {
            Agree(position, element.position, "position forward");
            Agree(m_list.GetNext(position), element.object, "element forward");
        }
        Agree(position, static_cast<POSITION>(nullptr), "behind the tail");
        position = m_list.GetTailPosition();
        for (auto element = m_elements.rbegin(); element != m_elements.rend(); ++element) {
            Agree(position, element->position, "position backward");
            Agree(m_list.GetPrev(position), element->object, "element backward");
        }
        Agree(position, static_cast<POSITION>(nullptr), "before the head");
    }

    Choices& m_choices;
    CObject m_objects[kObjects];
    CObject* m_object = nullptr; // what is being added
    CObList m_list;
    std::vector<Element> m_elements;
};

} // namespace

void ExerciseList(Choices& choices, unsigned long operations) {
    List list(choices);
    for (unsigned long i = 0; i < operations; ++i)
        list.Step();
}

} // namespace models
