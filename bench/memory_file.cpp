// Memory files: formatted lines, and text escaped for XML.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <Windows/MemFile.h>

#include "Bench.h"
#ifdef BENCH_QT
#include <QBuffer>
#include <QByteArray>
#include <QString>
#include <QTextStream>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

const int LINES = 1000;

// 64 KiB in which so many of a hundred characters are special.
std::string Markup(int percent) {
    const char special[] = "<>&'\"";
    std::string text;
    for (int i = 0; text.size() < 65536; ++i)
        text += percent != 0 && i % (100 / percent) == 0 ? special[i % 5] : static_cast<char>('a' + i % 26);
    return text;
}

const char* Entity(char c) {
    switch (c) {
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '&':
        return "&amp;";
    case '\'':
        return "&apos;";
    default:
        return "&quot;";
    }
}

// Character by character.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (char c : text)
        if (strchr("<>&'\"", c))
            escaped += Entity(c);
        else
            escaped += c;
    return escaped;
}

struct Library {
    CMemFile file;
    void Line(int i) { file.WriteF("line %d of %s has the value %.2f\n", i, "a table", i / 4.0); }
    void Escape(const std::string& text) { file.WriteStrEntities(text.c_str()); }
    std::string Text() { return std::string(reinterpret_cast<char*>(file.m_pBuffer), file.m_uiFileLength); }
    size_t Length() { return file.m_uiFileLength; }
};

// A block that grows by 1,024 bytes at a time. Text is formatted on the stack, and escaped in runs.
struct Floor {
    ~Floor() { free(block); }
    void Write(const char* from, size_t count) {
        if (length + count > room) {
            room += (length + count - room + 1023) / 1024 * 1024;
            block = static_cast<char*>(block ? realloc(block, room) : malloc(room));
        }
        memcpy(block + length, from, count);
        length += count;
    }
    FLOOR_CALL void Line(int i) {
        char text[16384];
        const int count =
            snprintf(text, sizeof text, "line %d of %s has the value %.2f\n", i, "a table", i / 4.0);
        Write(text, static_cast<size_t>(count));
    }
    void Escape(const std::string& text) {
        for (const char* p = text.c_str(); *p != '\0';) {
            const size_t run = strcspn(p, "<>&'\"");
            if (run > 0)
                Write(p, run);
            p += run;
            if (*p != '\0') {
                const char* entity = Entity(*p++);
                Write(entity, strlen(entity));
            }
        }
    }
    std::string Text() { return std::string(block, length); }
    size_t Length() { return length; }

    char* block = nullptr;
    size_t length = 0;
    size_t room = 0;
};

struct Std {
    std::string text;
    void Line(int i) {
        char line[256];
        text.append(line,
                    static_cast<size_t>(snprintf(line, sizeof line, "line %d of %s has the value %.2f\n", i,
                                                 "a table", i / 4.0)));
    }
    void Escape(const std::string& from) {
        size_t begin = 0;
        for (;;) {
            const size_t end = from.find_first_of("<>&'\"", begin);
            text.append(from, begin, end - begin);
            if (end == std::string::npos)
                return;
            text += Entity(from[end]);
            begin = end + 1;
        }
    }
    std::string Text() { return text; }
    size_t Length() { return text.size(); }
};

#ifdef BENCH_QT
struct QtCore {
    QByteArray bytes;
    void Line(int i) {
        bytes += QString::asprintf("line %d of %s has the value %.2f\n", i, "a table", i / 4.0).toUtf8();
    }
    // Its escaping leaves the apostrophe as it is.
    void Escape(const std::string& text) {
        bytes += QString::fromUtf8(text.c_str())
                     .toHtmlEscaped()
                     .replace(QLatin1Char('\''), QLatin1String("&apos;"))
                     .toUtf8();
    }
    std::string Text() { return bytes.toStdString(); }
    size_t Length() { return static_cast<size_t>(bytes.size()); }
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    Glib() : text(g_string_new("")) {}
    ~Glib() { g_string_free(text, TRUE); }
    void Line(int i) {
        g_string_append_printf(text, "line %d of %s has the value %.2f\n", i, "a table", i / 4.0);
    }
    void Escape(const std::string& from) {
        char* escaped = g_markup_escape_text(from.c_str(), static_cast<gssize>(from.size()));
        // It writes an apostrophe as a number.
        g_string_append(text, escaped);
        g_free(escaped);
    }
    std::string Text() { return std::string(text->str, text->len); }
    size_t Length() { return text->len; }
    GString* text;
};
#endif

std::string Lines() {
    std::string text;
    for (int i = 0; i < LINES; ++i) {
        char line[256];
        snprintf(line, sizeof line, "line %d of %s has the value %.2f\n", i, "a table", i / 4.0);
        text += line;
    }
    return text;
}

template <typename Column> void ThousandLines(benchmark::State& state) {
    const std::string expected = Lines();
    for (auto _ : state) {
        Column file;
        for (int i = 0; i < LINES; ++i)
            file.Line(i);
        if (!Agrees(state, file.Length() == expected.size()))
            return;
    }
    Column file;
    for (int i = 0; i < LINES; ++i)
        file.Line(i);
    Agrees(state, file.Text() == expected);
}

// Percent of the text that are special characters: state.range(0).
template <typename Column> void EscapeForXml(benchmark::State& state) {
    const std::string text = Markup(static_cast<int>(state.range(0)));
    const std::string expected = Escaped(text);
    {
        Column file;
        file.Escape(text);
        std::string written = file.Text();
        for (size_t at; (at = written.find("&#39;")) != std::string::npos;)
            written.replace(at, 5, "&apos;");
        if (!Agrees(state, written == expected))
            return;
    }
    for (auto _ : state) {
        Column file;
        file.Escape(text);
        benchmark::DoNotOptimize(file.Length());
    }
}

} // namespace

#define COLUMNS(operation, ...)                                                                              \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns) __VA_ARGS__;                                        \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns) __VA_ARGS__;                                          \
    BENCHMARK_TEMPLATE(operation, Std) __VA_ARGS__;                                                          \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore) __VA_ARGS__;)                                          \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib) __VA_ARGS__;)
COLUMNS(ThousandLines)
COLUMNS(EscapeForXml, ->Arg(6)->Arg(0))
