// XString against a model of its headers: the whole buffer byte by byte, and who shares what.
//
// The model knows which bytes of a buffer nobody has written. An operation that would read such a byte, or
// run past the buffer's end because no NUL stands in the text, is left out: callers cannot make use of one
// either.
#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <Windows/XString.h>

#include "models/Exercises.h"

namespace models {

namespace {

constexpr size_t kStrings = 6;
constexpr unsigned int kMostBytes = 200;
constexpr int kUnknown = -1;
const char kAlphabet[] = "aAbB c";

using Bytes = std::vector<int>;

Bytes BytesOf(const std::string& text) {
    Bytes bytes;
    for (const char c : text)
        bytes.push_back(static_cast<unsigned char>(c));
    return bytes;
}

struct Header {
    Bytes bytes; // the buffer; none without one
    unsigned int size = 0;
    unsigned int length = 0;
    int block = -1;

    bool HasBuffer() const { return !bytes.empty(); }

    // Up to the first NUL from a place on; false if that reads what nobody has written or lies outside.
    bool TextFrom(size_t from, std::string& text) const {
        text.clear();
        for (size_t i = from; i < bytes.size() && bytes[i] != kUnknown; ++i) {
            if (bytes[i] == 0)
                return true;
            text += static_cast<char>(bytes[i]);
        }
        return false;
    }

    void Allocate(const Bytes& text) {
        bytes = text;
        bytes.push_back(0);
        size = static_cast<unsigned int>(bytes.size());
        length = size - 1;
    }

    void ReallocateRounded(unsigned int wanted) {
        const int granule = block == -1 ? XString::m_iDefaultBlockSize : block;
        size = static_cast<unsigned int>(granule + static_cast<int>(wanted) / granule * granule);
        bytes.resize(size, kUnknown);
    }

    void SetLength(unsigned int to) {
        length = to;
        bytes[to] = 0;
    }

    Bytes Content() const { return Bytes(bytes.begin(), bytes.begin() + length); }
};

using Shared = std::shared_ptr<Header>;

Shared Fresh() { return std::make_shared<Header>(); }

// A header of exactly this text; no buffer for none.
Shared Exact(const Bytes& text) {
    Shared header = Fresh();
    if (!text.empty())
        header->Allocate(text);
    return header;
}

Shared OneByte() {
    Shared header = Fresh();
    header->Allocate({});
    return header;
}

Bytes Joined(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// What a printf-style format makes, and what its length is estimated at beforehand.
struct Formatted {
    std::string text;
    unsigned int estimate = 1;

    void Add(const std::string& piece, unsigned int charge) {
        text += piece;
        estimate += charge;
    }
};

class Strings {
public:
    explicit Strings(Choices& choices) : m_choices(choices) {
        for (Shared& header : m_headers)
            header = Fresh();
    }

    void Step() {
        m_at = m_choices.Below(kStrings);
        switch (m_choices.Below(5)) {
        case 0:
            Storage();
            break;
        case 1:
            Concatenation();
            break;
        case 2:
            Formatting();
            break;
        case 3:
            Reading();
            break;
        default:
            Editing();
            break;
        }
        if (Model().size > kMostBytes) {
            m_strings[m_at].Empty();
            Empty();
        }
        Compare(m_at);
        if (m_choices.OneIn(16))
            for (size_t i = 0; i < kStrings; ++i)
                Compare(i);
    }

private:
    XString& Library() { return m_strings[m_at]; }
    Shared& Slot() { return m_headers[m_at]; }
    Header& Model() { return *m_headers[m_at]; }
    bool IsShared() { return Slot().use_count() > 1; }
    int Length() { return static_cast<int>(Model().length); }

    // The whole text, if callers can read it and it is what the length says.
    bool Readable(std::string& text) { return Model().TextFrom(0, text); }
    bool Orderly(std::string& text) { return Readable(text) && text.size() == Model().length; }

    void Detach() {
        if (!IsShared())
            return;
        Shared copy = std::make_shared<Header>(Model());
        if (copy->size == 0)
            copy->bytes = {0}; // a text, though of no size
        Slot() = copy;
    }

    void Empty() {
        if (IsShared())
            Slot() = Fresh();
        else
            Model() = Header();
    }

    // --- Storage

    void Storage() {
        const std::string text = m_choices.TextOf(kAlphabet, 24);
        const size_t other = m_choices.Below(kStrings);
        const char c = m_choices.CharacterOf(kAlphabet);
        switch (m_choices.Below(10)) {
        case 0:
            Library() = m_strings[other];
            m_headers[m_at] = Shared(m_headers[other]);
            break;
        case 1: {
            const XString copy(m_strings[other]);
            Library() = copy;
            m_headers[m_at] = Shared(m_headers[other]);
            break;
        }
        case 2:
            Library() = text.c_str();
            Empty();
            Model().Allocate(BytesOf(text));
            break;
        case 3:
            Library() = c;
            Empty();
            Model().Allocate(BytesOf(std::string(1, c)));
            Model().length = 0;
            break;
        case 4:
            Library().Empty();
            Empty();
            break;
        case 5:
            Construct(text, c);
            break;
        case 6:
        case 7:
            Resize(1 + m_choices.Below(60));
            break;
        case 8:
            ReleaseBuffer();
            break;
        default:
            if (!IsShared() && Model().length > 0 && m_choices.OneIn(2)) {
                Library().FreeExtra();
                if (Model().size > Model().length + 1) {
                    Model().size = Model().length + 1;
                    Model().bytes.resize(Model().size);
                    Model().SetLength(Model().length);
                }
            } else if (Length() > 0) {
                const int index = m_choices.Between(0, Length() - 1);
                Library().SetAt(index, c);
                Detach();
                Model().bytes[static_cast<size_t>(index)] = static_cast<unsigned char>(c);
            }
            break;
        }
    }

    void Construct(const std::string& text, char c) {
        const int count = m_choices.Between(-1, static_cast<int>(text.size()));
        switch (m_choices.Below(4)) {
        case 0:
            Library() = XString(text.c_str());
            Slot() = Exact(BytesOf(text));
            break;
        case 1:
            Library() = XString(text.c_str(), count);
            Slot() = Exact(BytesOf(text.substr(0, static_cast<size_t>(std::max(count, 0)))));
            break;
        case 2:
            Library() = XString(c, count);
            Slot() = Exact(BytesOf(std::string(static_cast<size_t>(std::max(count, 0)), c)));
            break;
        default:
            Library() = XString();
            Slot() = Fresh();
            break;
        }
    }

    void ResizeModel(unsigned int size) {
        if (size == Model().size)
            return;
        if (!IsShared()) {
            Model().ReallocateRounded(size);
            if (size - 1 < Model().length)
                Model().SetLength(size - 1);
            return;
        }
        const Header& old = Model();
        Shared fresh = Fresh();
        fresh->block = old.block;
        fresh->size = size;
        const unsigned int kept = std::min(size, old.size);
        const unsigned int count = kept > 0 ? kept - 1 : 0;
        fresh->bytes.assign(old.bytes.begin(), old.bytes.begin() + count);
        fresh->bytes.resize(size, kUnknown);
        fresh->SetLength(count);
        Slot() = fresh;
    }

    void Resize(unsigned int size) {
        Library().Resize(size);
        ResizeModel(size);
    }

    // Not detached: every string that shares the header sees it.
    void ReleaseBuffer() {
        std::string text;
        if (Model().size == 0)
            return;
        if (m_choices.OneIn(2)) {
            const unsigned int length = m_choices.Below(Model().size);
            Library().ReleaseBuffer(static_cast<int>(length));
            Model().SetLength(length);
        } else if (Readable(text)) {
            Library().ReleaseBuffer(-1);
            Model().SetLength(static_cast<unsigned int>(text.size()));
        }
    }

    // --- Concatenation

    void Concatenation() {
        const std::string text = m_choices.TextOf(kAlphabet, 12);
        const size_t other = m_choices.Below(kStrings);
        const char c = m_choices.CharacterOf(kAlphabet);
        const Bytes single = BytesOf(std::string(1, c));
        const Bytes own = Model().Content();
        const Bytes others = m_headers[other]->Content();
        switch (m_choices.Below(8)) {
        case 0:
        case 1:
            Library() += c;
            AppendInPlace(c);
            break;
        case 2:
            Library() += text.c_str();
            Slot() = Exact(Joined(own, BytesOf(text)));
            break;
        case 3:
            Library() += m_strings[other];
            Slot() = Exact(Joined(own, others));
            break;
        case 4:
            Library() = c + m_strings[other];
            Slot() = Exact(Joined(single, others));
            break;
        case 5:
            Library() = m_strings[other] + c;
            Slot() = Exact(Joined(others, single));
            break;
        case 6:
            Library() = Library() + m_strings[other];
            Slot() = Exact(Joined(own, others));
            break;
        default:
            Library() = text.c_str() + m_strings[other];
            Slot() = Exact(Joined(BytesOf(text), others));
            break;
        }
    }

    void AppendInPlace(char c) {
        Header& header = Model();
        if (header.length + 2 > header.size)
            header.ReallocateRounded(header.length + 2);
        header.bytes[header.length] = static_cast<unsigned char>(c);
        header.SetLength(header.length + 1);
    }

    // --- Formatting

    void Formatting() {
        const std::string text = m_choices.TextOf(kAlphabet, 30);
        const int number = m_choices.Between(-100000, 100000);
        const char c = m_choices.CharacterOf(kAlphabet);
        const auto charge = static_cast<unsigned int>(std::max<size_t>(text.size(), 1));
        Formatted result;
        char piece[128];
        switch (m_choices.Below(6)) {
        case 0:
            Library().Format("%s=%d", text.c_str(), number);
            result.Add(text, charge);
            result.Add("=", 1);
            result.Add(std::to_string(number), 32);
            break;
        case 1:
            Library().Format("%8s|%c%%", text.c_str(), c);
            snprintf(piece, sizeof piece, "%8s", text.c_str());
            result.Add(piece, std::max(charge, 8U));
            result.Add("|", 1);
            result.Add(std::string(1, c), 2);
            result.Add("%", 1);
            break;
        case 2:
            Library().Format("%-*d%#x", 40, number, 255U);
            snprintf(piece, sizeof piece, "%-40d", number);
            result.Add(piece, 40);
            result.Add("0xff", 34);
            break;
        case 3: {
            Library().Format("%.3s;%f", text.c_str(), number / 8.0);
            result.Add(text.substr(0, 3), std::min(charge, 3U));
            result.Add(";", 1);
            snprintf(piece, sizeof piece, "%f", number / 8.0);
            result.Add(piece, static_cast<unsigned int>(strlen(piece)));
            break;
        }
        case 4: // more text than it is estimated at
            Library().Format("%.40d", -number);
            snprintf(piece, sizeof piece, "%.40d", -number);
            result.Add(piece, 40);
            break;
        default:
            Library().Format("%s", "");
            result.Add("", 1);
            break;
        }
        Format(result);
    }

    void Format(const Formatted& result) {
        if (result.estimate < Model().size)
            Detach();
        else
            ResizeModel(result.estimate + 1);
        const std::string kept = result.text.substr(0, result.estimate - 1);
        const Bytes bytes = BytesOf(kept);
        std::copy(bytes.begin(), bytes.end(), Model().bytes.begin());
        Model().SetLength(static_cast<unsigned int>(kept.size()));
    }

    // --- Reading

    void Reading() {
        std::string text;
        if (!Readable(text))
            return;
        const char c = m_choices.CharacterOf(kAlphabet);
        const std::string word = m_choices.TextOf(kAlphabet, 2);
        const int start = m_choices.Between(0, static_cast<int>(text.size()));
        const auto from = static_cast<size_t>(start);
        const XString& string = Library();
        switch (m_choices.Below(8)) {
        case 0:
            Agree(string.Find(c, start), static_cast<int>(text.find(c, from)), "Find character");
            break;
        case 1:
            Agree(string.Find(word.c_str(), start), static_cast<int>(text.find(word, from)), "Find text");
            break;
        case 2:
            Agree(string.ReverseFind(c), static_cast<int>(text.rfind(c)), "ReverseFind");
            break;
        case 3:
            Agree(string.FindOneOf(word.c_str()), static_cast<int>(text.find_first_of(word)), "FindOneOf");
            break;
        case 4:
            Agree(string.Compare(word.c_str()) < 0, text < word, "Compare");
            Agree(string == text.c_str(), true, "==");
            break;
        case 5: {
            std::string rest;
            const int first = m_choices.Between(0, Length() + 2);
            if (first < Length() && !Model().TextFrom(static_cast<size_t>(first), rest))
                return;
            Take(string.Mid(first), OneByte(), BytesOf(rest));
            break;
        }
        case 6: {
            const int first = m_choices.Between(0, Length() + 2);
            const int count = m_choices.Between(-1, Length() + 2);
            const Bytes own = Model().Content();
            const int taken = first < Length() ? std::min(count, Length() - first) : 0;
            Take(string.Mid(first, count), Fresh(),
                 taken < 1 ? Bytes() : Bytes(own.begin() + first, own.begin() + first + taken));
            break;
        }
        default: {
            const bool including = m_choices.OneIn(2);
            const size_t end = including ? text.find_first_not_of(word) : text.find_first_of(word);
            Take(including ? string.SpanIncluding(word.c_str()) : string.SpanExcluding(word.c_str()),
                 OneByte(), BytesOf(text.substr(0, end)));
            break;
        }
        }
    }

    // Puts an extracted text where a string is.
    void Take(const XString& result, const Shared& ifNothing, const Bytes& text) {
        Library() = result;
        Slot() = text.empty() ? ifNothing : Exact(text);
    }

    // --- Editing

    void Editing() {
        const char c = m_choices.CharacterOf(kAlphabet);
        const std::string word = m_choices.TextOf(kAlphabet, 3);
        std::string text;
        switch (m_choices.Below(9)) {
        case 0:
            Delete();
            return;
        case 1:
            Library().MakeReverse();
            if (Model().length > 1) {
                Detach();
                std::reverse(Model().bytes.begin(), Model().bytes.begin() + Model().length);
            }
            return;
        case 2:
        case 3:
            Insert(c, word);
            return;
        default:
            break;
        }
        if (!Orderly(text))
            return;
        switch (m_choices.Below(6)) {
        case 0: {
            const bool upper = m_choices.OneIn(2);
            upper ? Library().MakeUpper() : Library().MakeLower();
            Detach();
            for (size_t i = 0; i < text.size(); ++i)
                Model().bytes[i] = upper ? toupper(Model().bytes[i]) : tolower(Model().bytes[i]);
            break;
        }
        case 1:
            ReplaceCharacter(c, m_choices.CharacterOf(kAlphabet));
            break;
        case 2:
        case 3:
            ReplaceText(text, word, m_choices.TextOf(kAlphabet, 3));
            break;
        case 4:
            Remove(text, c);
            break;
        default:
            Trim(text, c, word);
            break;
        }
    }

    void Delete() {
        const int index = m_choices.Between(-1, Length() + 1);
        const int count = m_choices.OneIn(8) ? INT_MAX : m_choices.Between(-1, Length() + 1);
        const int result = Library().Delete(index, count);
        Detach();
        if (index >= 0 && index < Length() && count > 0) {
            const int end = count < Length() - index ? index + count : Length();
            const Bytes tail(Model().bytes.begin() + end, Model().bytes.begin() + Length());
            std::copy(tail.begin(), tail.end(), Model().bytes.begin() + index);
            Model().SetLength(static_cast<unsigned int>(index) + static_cast<unsigned int>(tail.size()));
        }
        Agree(result, Length(), "Delete");
    }

    void Insert(char c, const std::string& word) {
        const int wanted = m_choices.Between(-1, Length() + 1);
        const bool single = m_choices.OneIn(2);
        const Bytes inserted = BytesOf(single ? std::string(1, c) : word);
        const auto count = static_cast<unsigned int>(inserted.size());
        const auto index = static_cast<unsigned int>(std::max(wanted, 0));
        Header& header = Model();
        // What is copied from the front ends at a NUL.
        const auto front = header.bytes.begin() + std::min(index, header.length);
        if (std::find_if(header.bytes.begin(), front, [](int byte) { return byte <= 0; }) != front)
            return;
        const int result = single ? Library().Insert(wanted, c) : Library().Insert(wanted, word.c_str());
        if (count > 0 && (IsShared() || header.length + count + 1 > header.size)) {
            Bytes bytes = header.Content();
            bytes.insert(bytes.begin() + std::min(index, header.length), inserted.begin(), inserted.end());
            const int block = header.block;
            Slot() = Exact(bytes);
            Model().block = block;
        } else if (count > 0 && index < header.length) {
            // Moved up and written, but neither counted nor ended.
            std::copy_backward(header.bytes.begin() + index, header.bytes.begin() + header.length,
                               header.bytes.begin() + header.length + count);
            std::copy(inserted.begin(), inserted.end(), header.bytes.begin() + index);
        } else if (count > 0 && single) {
            AppendInPlace(c);
        } else if (count > 0) {
            Slot() = Exact(Joined(header.Content(), inserted));
        }
        Agree(result, Length(), "Insert");
    }

    void ReplaceCharacter(char from, char to) {
        const int result = Library().Replace(from, to);
        if (Length() == 0) {
            Agree(result, 0, "Replace in an empty string");
            return;
        }
        Detach();
        int count = 0;
        for (int& byte : Model().bytes) {
            if (byte == 0)
                break;
            if (byte == static_cast<unsigned char>(from)) {
                byte = static_cast<unsigned char>(to);
                ++count;
            }
        }
        Agree(result, count, "Replace character");
    }

    void ReplaceText(const std::string& text, const std::string& from, const std::string& to) {
        const int result = Library().Replace(from.c_str(), to.c_str());
        std::string replaced;
        int count = 0;
        size_t at = 0;
        for (size_t next; !from.empty() && (next = text.find(from, at)) != std::string::npos;
             at = next + from.size()) {
            replaced += text.substr(at, next - at) + to;
            ++count;
        }
        Agree(result, count, "Replace text");
        if (count == 0)
            return;
        const int block = Model().block;
        Slot() = Fresh();
        Model().block = block;
        Model().Allocate(BytesOf(replaced + text.substr(at)));
    }

    void Remove(const std::string& text, char c) {
        const int result = Library().Remove(c);
        std::string kept = text;
        kept.erase(std::remove(kept.begin(), kept.end(), c), kept.end());
        Agree(result, static_cast<int>(text.size() - kept.size()), "Remove");
        if (kept.size() != text.size())
            Overwrite(kept);
    }

    // Another text, not longer, in a buffer of its own; behind it the buffer holds what it held.
    void Overwrite(const std::string& text) {
        Detach();
        const Bytes bytes = BytesOf(text);
        std::copy(bytes.begin(), bytes.end(), Model().bytes.begin());
        std::fill(Model().bytes.begin() + static_cast<std::ptrdiff_t>(text.size()), Model().bytes.end(),
                  kUnknown);
        Model().SetLength(static_cast<unsigned int>(text.size()));
    }

    void Trim(const std::string& text, char c, const std::string& word) {
        const bool left = m_choices.OneIn(2);
        const bool single = m_choices.OneIn(2);
        const std::string set = single ? std::string(1, c) : word;
        if (!left && text.empty())
            return; // aborts
        if (left)
            single ? Library().TrimLeft(c) : Library().TrimLeft(word.c_str());
        else
            single ? Library().TrimRight(c) : Library().TrimRight(word.c_str());
        if (text.empty()) {
            if (!single)
                Detach(); // the end of the text is found in the set
            return;
        }
        const size_t first = left ? text.find_first_not_of(set) : 0;
        const size_t last = left ? text.size() - 1 : text.find_last_not_of(set);
        if (first == 0 && last == text.size() - 1)
            return;
        Overwrite(first == std::string::npos || last == std::string::npos
                      ? ""
                      : text.substr(first, last - first + 1));
    }

    // --- Comparing

    void Compare(size_t at) {
        const XStringData& data = *m_strings[at].m_pStrData;
        const Header& header = *m_headers[at];
        Agree(data.m_uiLength, header.length, "length");
        Agree(data.m_uiBuffSize, header.size, "buffer size");
        Agree(data.m_iBlockSize, header.block, "block size");
        Agree(data.m_iRefCount, static_cast<int>(m_headers[at].use_count()), "reference count");
        Agree(data.m_bLocked, false, "lock");
        Agree(data.m_pszData != nullptr, header.HasBuffer(), "buffer");
        for (size_t i = 0; i < header.bytes.size(); ++i)
            if (header.bytes[i] != kUnknown &&
                header.bytes[i] != static_cast<unsigned char>(data.m_pszData[i]))
                Agree(static_cast<int>(static_cast<unsigned char>(data.m_pszData[i])), header.bytes[i],
                      "byte");
        for (size_t i = 0; i < kStrings; ++i)
            Agree(m_strings[i].m_pStrData == &data, m_headers[i] == m_headers[at], "sharing");
    }

    Choices& m_choices;
    XString m_strings[kStrings];
    Shared m_headers[kStrings];
    size_t m_at = 0; // the string whose turn it is
};

} // namespace

void ExerciseString(Choices& choices, unsigned long operations) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    {
        Strings exercise(choices);
        for (unsigned long i = 0; i < operations; ++i)
            exercise.Step();
    }
    Agree(XString::m_iObjCount, strings, "strings left");
    Agree(XStringData::m_iObjCount, headers, "headers left");
}

} // namespace models
