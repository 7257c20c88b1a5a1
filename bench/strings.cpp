// Strings: copies, building, appending, formatting, searching, replacing.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <Windows/XString.h>

#include "Bench.h"
#ifdef BENCH_QT
#include <QByteArray>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

const char SHORT[] = "eight ch";
const char LONG[] = "forty-three characters, which is one line !";
static_assert(sizeof SHORT - 1 == 8 && sizeof LONG - 1 == 43, "the sizes of the rows");

// 1 KiB without what is searched for, but for its end.
std::string Haystack() {
    std::string text;
    while (text.size() < 1024 - 6)
        text += "some text that has needs and nettles, ";
    text.resize(1024 - 6);
    return text + "needle";
}

// One word in ten is replaced by a longer one.
std::string Sentence() {
    std::string text;
    for (int i = 0; i < 10; ++i)
        text += "one two three four five six seven eight nine blue ";
    return text;
}

struct Library {
    using Text = XString;
    static const char* Chars(const Text& text) { return text; }
    static void Append(Text& text, char c) { text += c; }
    static Text Join(const Text& a, const Text& b) { return a + b; }
    static void Format(Text& text, const char* name, int value) { text.Format("%s=%d", name, value); }
    static int Find(const Text& text, const char* sought) { return text.Find(sought); }
    static int Find(const Text& text, char sought) { return text.Find(sought); }
    static void Replace(Text& text, const char* from, const char* to) { text.Replace(from, to); }
};

// A pointer to a counted header with its text in a second block, and a count of strings and of headers.
class Floor {
public:
    class Text {
    public:
        FLOOR_CALL Text(const char* text) : Text(text, strlen(text), "", 0) {}
        Text(const char* a, size_t lengthA, const char* b, size_t lengthB) : m_header(NewHeader()) {
            Fill(a, lengthA, b, lengthB);
            __sync_fetch_and_add(&g_strings, 1);
        }
        FLOOR_CALL Text(const Text& other) : m_header(other.m_header) {
            __sync_fetch_and_add(&m_header->references, 1);
            __sync_fetch_and_add(&g_strings, 1);
        }
        FLOOR_CALL ~Text() {
            Release(m_header);
            __sync_fetch_and_add(&g_strings, -1);
        }
        Text& operator=(const Text&) = delete;

    private:
        friend class Floor;
        struct Header {
            int references;
            unsigned int length;
            unsigned int size;
            char* text;
        };

        static Header* NewHeader() {
            ++g_headers;
            return new Header{1, 0, 0, nullptr};
        }

        static void Release(Header* header) {
            if (__sync_fetch_and_add(&header->references, -1) != 1)
                return;
            free(header->text);
            --g_headers;
            delete header;
        }

        void Fill(const char* a, size_t lengthA, const char* b, size_t lengthB) {
            m_header->size = static_cast<unsigned int>(lengthA + lengthB + 1);
            m_header->text = static_cast<char*>(malloc(m_header->size));
            memcpy(m_header->text, a, lengthA);
            memcpy(m_header->text + lengthA, b, lengthB);
            m_header->length = m_header->size - 1;
            m_header->text[m_header->length] = '\0';
        }

        Header* m_header;
        static int g_strings;
        static int g_headers;
    };

    static const char* Chars(const Text& text) { return text.m_header->text; }

    static void Append(Text& text, char c) {
        auto* header = text.m_header;
        if (header->length + 2 > header->size) {
            header->size = (header->length + 2) / 16 * 16 + 16;
            header->text = static_cast<char*>(realloc(header->text, header->size));
        }
        header->text[header->length++] = c;
        header->text[header->length] = '\0';
    }

    FLOOR_CALL static Text Join(const Text& a, const Text& b) {
        return Text(Chars(a), a.m_header->length, Chars(b), b.m_header->length);
    }

    // The room is estimated: 32 for the number, whose width is looked for with strtol.
    FLOOR_CALL static void Format(Text& text, const char* name, int value) {
        const char* format = "%s=%d";
        size_t room = 1;
        for (const char* p = format; *p != '\0'; ++p) {
            if (*p != '%') {
                ++room;
                continue;
            }
            char* end;
            strtol(p + 1, &end, 10);
            p = end;
            room += *++p == 's' ? strlen(name) : 32;
        }
        auto* header = text.m_header;
        if (room >= header->size) {
            header->size = static_cast<unsigned int>((room + 1) / 16 * 16 + 16);
            header->text = static_cast<char*>(realloc(header->text, header->size));
        }
        snprintf(header->text, room, format, name, value);
        header->length = static_cast<unsigned int>(strlen(header->text));
        header->text[header->length] = '\0';
    }

    FLOOR_CALL static int Find(const Text& text, const char* sought) {
        return static_cast<int>(strstr(Chars(text), sought) - Chars(text));
    }

    FLOOR_CALL static int Find(const Text& text, char sought) {
        return static_cast<int>(strchr(Chars(text), sought) - Chars(text));
    }

    // Counts first, as the new buffer fits exactly.
    FLOOR_CALL static void Replace(Text& text, const char* from, const char* to) {
        const size_t fromLength = strlen(from);
        const size_t toLength = strlen(to);
        auto* old = text.m_header;
        size_t count = 0;
        for (const char* at = strstr(old->text, from); at; at = strstr(at + fromLength, from))
            ++count;
        if (count == 0)
            return;
        auto* header = Text::NewHeader();
        header->length = static_cast<unsigned int>(old->length + count * (toLength - fromLength));
        header->size = header->length + 1;
        header->text = static_cast<char*>(malloc(header->size));
        char* end = header->text;
        const char* rest = old->text;
        while (const char* at = strstr(rest, from)) {
            memcpy(end, rest, static_cast<size_t>(at - rest));
            end += at - rest;
            memcpy(end, to, toLength);
            end += toLength;
            rest = at + fromLength;
        }
        strcpy(end, rest);
        text.m_header = header;
        Text::Release(old);
    }
};
int Floor::Text::g_strings = 0;
int Floor::Text::g_headers = 0;

struct Std {
    using Text = std::string;
    static const char* Chars(const Text& text) { return text.c_str(); }
    static void Append(Text& text, char c) { text += c; }
    static Text Join(const Text& a, const Text& b) { return a + b; }
    static void Format(Text& text, const char* name, int value) {
        text.resize(static_cast<size_t>(snprintf(nullptr, 0, "%s=%d", name, value)));
        snprintf(&text[0], text.size() + 1, "%s=%d", name, value);
    }
    static int Find(const Text& text, const char* sought) { return static_cast<int>(text.find(sought)); }
    static int Find(const Text& text, char sought) { return static_cast<int>(text.find(sought)); }
    static void Replace(Text& text, const char* from, const char* to) {
        const size_t fromLength = strlen(from);
        const size_t toLength = strlen(to);
        for (size_t at = text.find(from); at != Text::npos; at = text.find(from, at + toLength))
            text.replace(at, fromLength, to);
    }
};

#ifdef BENCH_QT
struct QtCore {
    using Text = QByteArray;
    static const char* Chars(const Text& text) { return text.constData(); }
    static void Append(Text& text, char c) { text += c; }
    static Text Join(const Text& a, const Text& b) { return a + b; }
    static void Format(Text& text, const char* name, int value) {
        text = QByteArray(name) + '=' + QByteArray::number(value);
    }
    static int Find(const Text& text, const char* sought) { return text.indexOf(sought); }
    static int Find(const Text& text, char sought) { return text.indexOf(sought); }
    static void Replace(Text& text, const char* from, const char* to) { text.replace(from, to); }
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    class Text {
    public:
        Text(const char* text) : m_text(g_string_new(text)) {}
        Text(const Text& other) : m_text(g_string_new_len(other.m_text->str, other.m_text->len)) {}
        ~Text() { g_string_free(m_text, TRUE); }
        Text& operator=(const Text&) = delete;
        GString* m_text;
    };
    static const char* Chars(const Text& text) { return text.m_text->str; }
    static void Append(Text& text, char c) { g_string_append_c(text.m_text, c); }
    static Text Join(const Text& a, const Text& b) {
        Text sum(a);
        g_string_append_len(sum.m_text, b.m_text->str, b.m_text->len);
        return sum;
    }
    static void Format(Text& text, const char* name, int value) {
        g_string_printf(text.m_text, "%s=%d", name, value);
    }
    static int Find(const Text& text, const char* sought) {
        return static_cast<int>(strstr(Chars(text), sought) - Chars(text));
    }
    static int Find(const Text& text, char sought) {
        return static_cast<int>(strchr(Chars(text), sought) - Chars(text));
    }
    static void Replace(Text& text, const char* from, const char* to) {
        g_string_replace(text.m_text, from, to, 0);
    }
};
#endif

template <typename Column> void Copy(benchmark::State& state) {
    const typename Column::Text text(LONG);
    if (!Agrees(state, strcmp(Column::Chars(typename Column::Text(text)), LONG) == 0))
        return;
    for (auto _ : state) {
        typename Column::Text copy(text);
        benchmark::DoNotOptimize(copy);
    }
}

template <typename Column> void Build(benchmark::State& state) {
    const char* chars = state.range(0) == 8 ? SHORT : LONG;
    if (!Agrees(state, strcmp(Column::Chars(typename Column::Text(chars)), chars) == 0))
        return;
    for (auto _ : state) {
        benchmark::DoNotOptimize(chars);
        typename Column::Text text(chars);
        benchmark::DoNotOptimize(text);
    }
}

template <typename Column> void AppendThousand(benchmark::State& state) {
    for (auto _ : state) {
        typename Column::Text text("");
        for (int i = 0; i < 1000; ++i)
            Column::Append(text, static_cast<char>('a' + i % 26));
        benchmark::DoNotOptimize(text);
        if (!Agrees(state, Column::Chars(text)[999] == 'a' + 999 % 26 && Column::Chars(text)[1000] == '\0'))
            return;
    }
}

template <typename Column> void Join(benchmark::State& state) {
    const typename Column::Text a(LONG);
    const typename Column::Text b(SHORT);
    if (!Agrees(state, Column::Chars(Column::Join(a, b)) == std::string(LONG) + SHORT))
        return;
    for (auto _ : state) {
        typename Column::Text sum(Column::Join(a, b));
        benchmark::DoNotOptimize(sum);
    }
}

template <typename Column> void Format(benchmark::State& state) {
    int value = 12345;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        typename Column::Text text(SHORT);
        Column::Format(text, "temperature", value);
        benchmark::DoNotOptimize(text);
        if (!Agrees(state, strcmp(Column::Chars(text), "temperature=12345") == 0))
            return;
    }
}

template <typename Column> void FindText(benchmark::State& state) {
    const typename Column::Text text(Haystack().c_str());
    const char* needle = "needle";
    for (auto _ : state) {
        benchmark::DoNotOptimize(needle);
        if (!Agrees(state, Column::Find(text, needle) == 1018))
            return;
    }
}

template <typename Column> void FindCharacter(benchmark::State& state) {
    std::string haystack(1024, 'x');
    haystack.back() = '!';
    const typename Column::Text text(haystack.c_str());
    char sought = '!';
    for (auto _ : state) {
        benchmark::DoNotOptimize(sought);
        if (!Agrees(state, Column::Find(text, sought) == 1023))
            return;
    }
}

template <typename Column> void Replace(benchmark::State& state) {
    const std::string sentence = Sentence();
    std::string expected = sentence;
    Std::Replace(expected, "blue", "green");
    const typename Column::Text original(sentence.c_str());
    for (auto _ : state) {
        typename Column::Text text(original);
        Column::Replace(text, "blue", "green");
        benchmark::DoNotOptimize(text);
        if (!Agrees(state, Column::Chars(text)[sentence.size()] == expected[sentence.size()]))
            return;
    }
    typename Column::Text text(original);
    Column::Replace(text, "blue", "green");
    Agrees(state, Column::Chars(text) == expected);
}

} // namespace

#define COLUMNS(operation, ...)                                                                              \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns) __VA_ARGS__;                                        \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns) __VA_ARGS__;                                          \
    BENCHMARK_TEMPLATE(operation, Std) __VA_ARGS__;                                                          \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore) __VA_ARGS__;)                                          \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib) __VA_ARGS__;)
COLUMNS(Copy)
COLUMNS(Build, ->Arg(8)->Arg(43))
COLUMNS(AppendThousand)
COLUMNS(Join)
COLUMNS(Format)
COLUMNS(FindText)
COLUMNS(FindCharacter)
COLUMNS(Replace)
