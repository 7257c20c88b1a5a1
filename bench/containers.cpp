// A pointer array and a list of 10,000 elements: filled, read once, emptied.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <list>
#include <vector>

#include <Windows/ObList.h>
#include <Windows/PtrArray.h>

#include "Bench.h"
#ifdef BENCH_QT
#include <QList>
#include <QVector>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

const uintptr_t COUNT = 10000;
const uintptr_t SUM = COUNT * (COUNT + 1) / 2;

void* Element(uintptr_t i) { return reinterpret_cast<void*>(i + 1); }
uintptr_t Number(const void* element) { return reinterpret_cast<uintptr_t>(element); }

struct Library {
    static uintptr_t Array() {
        CPtrArray array;
        for (uintptr_t i = 0; i < COUNT; ++i)
            array.Add(Element(i));
        uintptr_t sum = 0;
        for (int i = 0; i < array.GetSize(); ++i)
            sum += Number(array.GetAt(i));
        return sum;
    }
    static uintptr_t List() {
        CObList list;
        for (uintptr_t i = 0; i < COUNT; ++i)
            list.AddTail(static_cast<CObject*>(Element(i)));
        uintptr_t sum = 0;
        for (POSITION at = list.GetHeadPosition(); at;)
            sum += Number(list.GetNext(at));
        return sum;
    }
};

// An array that grows by 16 elements into a new block each time; a list of three pointers an element.
struct Floor {
    static uintptr_t Array() {
        void** block = nullptr;
        size_t room = 0;
        size_t size = 0;
        for (uintptr_t i = 0; i < COUNT; ++i) {
            if (size == room) {
                void** grown = new void*[room + 16];
                if (block)
                    memcpy(grown, block, room * sizeof *grown);
                delete[] block;
                block = grown;
                room += 16;
            }
            block[size++] = Element(i);
        }
        uintptr_t sum = 0;
        for (size_t i = 0; i < size; ++i)
            sum += Number(block[i]);
        delete[] block;
        return sum;
    }
    static uintptr_t List() {
        struct Node {
            Node* next;
            Node* previous;
            void* data;
        };
        Node* head = nullptr;
        Node* tail = nullptr;
        for (uintptr_t i = 0; i < COUNT; ++i) {
            Node* node = new Node{nullptr, tail, Element(i)};
            (tail ? tail->next : head) = node;
            tail = node;
        }
        uintptr_t sum = 0;
        for (const Node* node = head; node; node = node->next)
            sum += Number(node->data);
        while (head) {
            Node* next = head->next;
            delete head;
            head = next;
        }
        return sum;
    }
};

template <typename Vector> uintptr_t FillVector() {
    Vector array;
    for (uintptr_t i = 0; i < COUNT; ++i)
        array.push_back(Element(i));
    uintptr_t sum = 0;
    for (const void* element : array)
        sum += Number(element);
    return sum;
}

struct Std {
    static uintptr_t Array() { return FillVector<std::vector<void*>>(); }
    static uintptr_t List() { return FillVector<std::list<void*>>(); }
};

#ifdef BENCH_QT
struct QtCore {
    static uintptr_t Array() { return FillVector<QVector<void*>>(); }
    static uintptr_t List() { return FillVector<QList<void*>>(); }
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    static uintptr_t Array() {
        GPtrArray* array = g_ptr_array_new();
        for (uintptr_t i = 0; i < COUNT; ++i)
            g_ptr_array_add(array, Element(i));
        uintptr_t sum = 0;
        for (guint i = 0; i < array->len; ++i)
            sum += Number(g_ptr_array_index(array, i));
        g_ptr_array_free(array, TRUE);
        return sum;
    }
    static uintptr_t List() {
        GQueue list = G_QUEUE_INIT;
        for (uintptr_t i = 0; i < COUNT; ++i)
            g_queue_push_tail(&list, Element(i));
        uintptr_t sum = 0;
        for (const GList* node = list.head; node; node = node->next)
            sum += Number(node->data);
        g_queue_clear(&list);
        return sum;
    }
};
#endif

template <typename Column> void Array(benchmark::State& state) {
    for (auto _ : state)
        if (!Agrees(state, Column::Array() == SUM))
            return;
}

template <typename Column> void List(benchmark::State& state) {
    for (auto _ : state)
        if (!Agrees(state, Column::List() == SUM))
            return;
}

} // namespace

#define COLUMNS(operation)                                                                                   \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns);                                                    \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns);                                                      \
    BENCHMARK_TEMPLATE(operation, Std);                                                                      \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore);)                                                      \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib);)
COLUMNS(Array)
COLUMNS(List)
