// What the fuzz targets share: decisions and bytes out of an input, a failure that the fuzzer sees, and a
// host that says nothing.
//
// A target is one file with LLVMFuzzerTestOneInput. It keeps within what callers may do, so whatever it finds
// is a fault: a sanitizer's report, or a result that is not the expected one, which ends in Fail().
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <Windows/XString.h>
#include <reference_host/reference_host.h>

#include "models/Exercises.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// No event passes: formatting and writing them would take most of the time.
inline const bool kHostIsQuiet = [] {
    reference_host::SetMaximumSeverity(0);
    return true;
}();

[[noreturn]] inline void Fail(const std::string& reason) {
    fprintf(stderr, "%s\n", reason.c_str());
    abort();
}

inline void Require(bool holds, const char* what) {
    if (!holds)
        Fail(std::string("does not hold: ") + what);
}

// The input as a source of decisions. When its bytes are used up every number is 0.
class Input : public models::Choices {
public:
    Input(const uint8_t* data, size_t size) : m_next(data), m_end(data + size) {}

    unsigned int Below(unsigned int limit) override {
        unsigned int number = Byte();
        for (unsigned int range = limit - 1; range > 0xFF; range >>= 8)
            number = number << 8 | Byte();
        return number % limit;
    }

    size_t Left() const { return static_cast<size_t>(m_end - m_next); }

    // So many bytes, or what is left.
    std::string Bytes(size_t most) {
        const size_t count = std::min(most, Left());
        std::string bytes(m_next, m_next + count);
        m_next += count;
        return bytes;
    }

private:
    unsigned int Byte() { return m_next == m_end ? 0 : *m_next++; }

    const uint8_t* m_next;
    const uint8_t* m_end;
};

// Runs a model's exercise until the input is used up.
inline int Exercise(void (*exercise)(models::Choices&, unsigned long), const uint8_t* data, size_t size) {
    struct UsedUp {};
    struct Decisions : Input {
        using Input::Input;

        unsigned int Below(unsigned int limit) override {
            if (Left() == 0)
                throw UsedUp();
            return Input::Below(limit);
        }
    };
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    try {
        Decisions decisions(data, size);
        exercise(decisions, ULONG_MAX);
    } catch (UsedUp) {
    } catch (const models::Disagreement& disagreement) {
        Fail(disagreement.what());
    }
    Require(XString::m_iObjCount == strings && XStringData::m_iObjCount == headers, "no string is left");
    return 0;
}

// The length of a frame, as the wire has it in front of the payload.
inline uint32_t LengthAt(const std::string& stream, size_t at) {
    uint32_t length = 0;
    for (size_t i = at; i < at + 4; ++i)
        length = length << 8 | static_cast<uint8_t>(stream[i]);
    return length;
}

// Makes the lengths in a stream of frames moderate, as a receiver allocates what a prefix says. Those of 2^31
// and above stay: they are negative numbers to it, and allocate nothing.
inline void TameLengths(std::string& stream) {
    for (size_t at = 0; stream.size() - at >= 4;) {
        const uint32_t length = LengthAt(stream, at);
        if (length > 0xFFFF && length <= 0x7FFFFFFF)
            stream[at] = stream[at + 1] = '\0';
        const uint32_t tame = LengthAt(stream, at);
        at += 4;
        if (tame <= 0x7FFFFFFF)
            at += std::min<size_t>(tame, stream.size() - at);
    }
}

} // namespace fuzz

#endif
