// BSTR and _bstr_t against byte vectors.
//
// The model knows which bytes of a text nobody has written. An operation that would read such a byte is left
// out: callers cannot make use of one either.
#include <string.h>

#include <string>
#include <vector>

#include <Windows/bstr.h>
#include <Windows/variant.h>

#include "models/Exercises.h"

namespace models {

namespace {

constexpr unsigned int kTexts = 4;
constexpr unsigned int kOwners = 4;
constexpr size_t kMostBytes = 200;
constexpr int kUnknown = -1;
const char kAlphabet[] = "abc%";

// A BSTR or NULL.
struct Text {
    bool exists = false;
    std::vector<int> bytes;

    // Up to the first NUL; false if that reads what nobody has written. NULL reads as "".
    bool Read(std::string& text) const {
        text.clear();
        for (const int byte : bytes) {
            if (byte == kUnknown)
                return false;
            if (byte == 0)
                break;
            text += static_cast<char>(byte);
        }
        return true;
    }
};

// Of a text up to its first NUL.
Text Made(const std::string& text) {
    Text made;
    made.exists = true;
    for (const char c : std::string(text.c_str()))
        made.bytes.push_back(static_cast<unsigned char>(c));
    return made;
}

// Of a C string that may be NULL.
Text MadeOf(const char* text) { return text ? Made(text) : Text(); }

// What SysAllocStringLen makes.
Text MadeWithLength(const char* text, size_t length) {
    Text made;
    made.exists = true;
    made.bytes.assign(length, kUnknown);
    const std::string begin = text ? text : std::string(1, '\0');
    for (size_t i = 0; i < begin.size() && i < length; ++i)
        made.bytes[i] = static_cast<unsigned char>(begin[i]);
    return made;
}

class Bstrs {
public:
    explicit Bstrs(Choices& choices) : m_choices(choices) {}

    ~Bstrs() {
        for (BSTR& bstr : m_bstrs)
            SysFreeString(bstr);
    }

    Bstrs(const Bstrs&) = delete;
    Bstrs& operator=(const Bstrs&) = delete;

    void Step() {
        m_text = m_choices.Below(kTexts);
        m_owner = m_choices.Below(kOwners);
        switch (m_choices.Below(5)) {
        case 0:
            Allocation();
            break;
        case 1:
            Contents();
            break;
        case 2:
            Assignment();
            break;
        case 3:
            Concatenation();
            break;
        default:
            Exchange();
            break;
        }
        for (unsigned int i = 0; i < kTexts; ++i)
            Compare(m_bstrs[i], m_texts[i]);
        for (unsigned int i = 0; i < kOwners; ++i)
            Compare(m_owners[i].getData(), m_owned[i]);
    }

private:
    // --- Single texts

    void Allocation() {
        const std::string word = m_choices.TextOf(std::string(kAlphabet) + '\0', 20);
        const char* const text = m_choices.OneIn(6) ? nullptr : word.c_str();
        BSTR& bstr = m_bstrs[m_text];
        switch (m_choices.Below(6)) {
        case 0:
            SysFreeString(bstr);
            Agree(bstr == nullptr, true, "a freed variable is NULL");
            m_texts[m_text] = Text();
            break;
        case 1:
            Replace(SysAllocString(text), MadeOf(text));
            break;
        case 2:
            Replace(SysAllocString(word), Made(word));
            break;
        case 3: {
            const size_t length = m_choices.Below(30);
            Replace(SysAllocStringLen(text, static_cast<unsigned long>(length)),
                    MadeWithLength(text, length));
            break;
        }
        case 4: {
            const int number = m_choices.Between(-1000, 1000);
            Replace(FormatBSTR("%s=%d", word.c_str(), number),
                    Made(word.c_str() + ("=" + std::to_string(number))));
            break;
        }
        default:
            Agree(SysReAllocString(&bstr, text), TRUE, "SysReAllocString");
            m_texts[m_text] = MadeOf(text);
            break;
        }
    }

    void Replace(BSTR bstr, const Text& text) {
        SysFreeString(m_bstrs[m_text]);
        m_bstrs[m_text] = bstr;
        m_texts[m_text] = text;
    }

    // Writes all bytes, as callers do, NULs included; or shows the functions what is no BSTR.
    void Contents() {
        if (m_choices.OneIn(3)) {
            NoBstr();
            return;
        }
        Text& text = m_texts[m_text];
        for (size_t i = 0; i < text.bytes.size(); ++i)
            text.bytes[i] = m_bstrs[m_text][i] =
                m_choices.OneIn(16) ? '\0' : m_choices.CharacterOf(kAlphabet);
    }

    void NoBstr() {
        char memory[] = "in front and behind";
        char* const place = memory + 8;
        BSTR bstr = place;
        SysFreeString(bstr);
        Agree(bstr == place, true, "what is no BSTR stays");
        Agree(std::string(memory), std::string("in front and behind"), "and its memory too");
        Agree(IsBSTR(place, m_choices.OneIn(2)), false, "IsBSTR");
        Agree(SysStringLen(place) + SysStringByteLen(place), 0U, "length of what is no BSTR");
        Agree(m_owners[m_owner].Attach(place), false, "Attach of what is no BSTR");
    }

    // --- Owners

    _bstr_t& Owner() { return m_owners[m_owner]; }
    Text& Owned() { return m_owned[m_owner]; }

    void Assignment() {
        const unsigned int other = m_choices.Below(kOwners);
        const std::string word = m_choices.TextOf(kAlphabet, 20);
        std::string others;
        switch (m_choices.Below(6)) {
        case 0:
            Owner() = word.c_str();
            Owned() = Made(word);
            break;
        case 1:
            Owner() = static_cast<const char*>(nullptr);
            Owned() = Text();
            break;
        case 2:
            if (!m_owned[other].Read(others))
                return;
            Owner() = m_owners[other];
            if (other != m_owner)
                Owned() = m_owned[other].exists ? Made(others) : Text();
            break;
        case 3: {
            XString string(word.c_str());
            Owner() = string;
            Owned() = word.empty() ? Text() : Made(word); // an empty string has no buffer
            if (m_choices.OneIn(2)) {                     // the string is still locked
                Owner() = string;
                Owned() = Text();
            }
            break;
        }
        case 4: {
            _variant_t number(m_choices.Between(-1000, 1000));
            Owned() = Made(std::to_string(number.lVal));
            Owner() = number;
            number.Clear();
            break;
        }
        default:
            CopyOf(other);
            break;
        }
    }

    // Copies by each constructor and function that makes one.
    void CopyOf(unsigned int other) {
        std::string text;
        if (!m_owned[other].Read(text))
            return;
        const Text expected = m_owned[other].exists ? Made(text) : Text();
        _bstr_t& from = m_owners[other];
        const _bstr_t copy(from);
        Compare(_bstr_t(copy).getData(), expected);
        Compare(_bstr_t(from.copy(), false).getData(), expected);
        Compare(_bstr_t(from.getData(), true).getData(), expected);
        Agree(copy == from, true, "a copy is equal");
        Agree(copy < "b", text < "b", "order of the texts");
        XString string = from;
        Agree(string == text.c_str(), true, "an XString of the text");
        Compare(_bstr_t(string).getData(), Made(text));
    }

    void Concatenation() {
        const unsigned int other = m_choices.Below(kOwners);
        const std::string word = m_choices.TextOf(kAlphabet, 20);
        std::string own, others;
        if (!Owned().Read(own) || !m_owned[other].Read(others) || Owned().bytes.size() > kMostBytes)
            return;
        switch (m_choices.Below(4)) {
        case 0:
            Owner() += word.c_str();
            Append(word);
            break;
        case 1:
            Owner() += static_cast<const char*>(nullptr);
            break;
        case 2: // itself, maybe
            Owner() += m_owners[other];
            if (!m_owned[other].bytes.empty())
                Append(others);
            break;
        default: {
            _bstr_t sum = Owner() + word.c_str();
            Agree(std::string(static_cast<const char*>(sum)), own + word, "a sum");
            break;
        }
        }
    }

    // Behind the stored length; of the text in front of it what is behind a NUL is not kept.
    void Append(const std::string& word) {
        std::string own;
        Owned().Read(own);
        const size_t before = Owned().bytes.size();
        const bool existed = Owned().exists;
        Owned() = MadeWithLength(existed ? own.c_str() : nullptr, before + word.size());
        for (size_t i = 0; i < word.size(); ++i)
            Owned().bytes[before + i] = static_cast<unsigned char>(word[i]);
    }

    // --- Between both

    void Exchange() {
        switch (m_choices.Below(3)) {
        case 0:
            Agree(Owner().Attach(m_bstrs[m_text]), true, "Attach");
            Owned() = m_texts[m_text];
            m_bstrs[m_text] = nullptr;
            m_texts[m_text] = Text();
            break;
        case 1:
            Replace(Owner().Detach(), Owned());
            Owned() = Text();
            break;
        default:
            std::swap(Owner().GetBSTR(), m_bstrs[m_text]);
            std::swap(Owned(), m_texts[m_text]);
            break;
        }
        Agree(!Owner(), !Owned().exists, "operator!");
    }

    static void Compare(BSTR bstr, const Text& text) {
        Agree(bstr != nullptr, text.exists, "BSTR or NULL");
        Agree(SysStringLen(bstr), text.bytes.size(), "length");
        if (!bstr)
            return;
        Agree(IsBSTR(bstr, true), true, "IsBSTR");
        for (size_t i = 0; i < text.bytes.size(); ++i)
            if (text.bytes[i] != kUnknown)
                Agree(static_cast<int>(static_cast<unsigned char>(bstr[i])), text.bytes[i], "byte");
        Agree(static_cast<int>(bstr[text.bytes.size()]), 0, "NUL behind the text");
    }

    Choices& m_choices;
    BSTR m_bstrs[kTexts] = {};
    Text m_texts[kTexts];
    _bstr_t m_owners[kOwners];
    Text m_owned[kOwners];
    unsigned int m_text = 0; // whose turn it is
    unsigned int m_owner = 0;
};

} // namespace

void ExerciseBstr(Choices& choices, unsigned long operations) {
    Bstrs bstrs(choices);
    for (unsigned long i = 0; i < operations; ++i)
        bstrs.Step();
}

} // namespace models
