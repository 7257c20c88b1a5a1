// Where an exercise takes its decisions from, and how it reports that library and model disagree.
#ifndef MODELS_CHOICES_H
#define MODELS_CHOICES_H

#include <stdexcept>
#include <string>

namespace models {

// A source of decisions; what they come from (a random generator, recorded bytes) is its own affair.
class Choices {
public:
    virtual ~Choices() = default;

    // A number below limit, which is at least 1.
    virtual unsigned int Below(unsigned int limit) = 0;

    bool OneIn(unsigned int n) { return Below(n) == 0; }

    // A number from low to high, both included.
    int Between(int low, int high) {
        return low + static_cast<int>(Below(static_cast<unsigned int>(high - low) + 1));
    }

    char CharacterOf(const std::string& alphabet) {
        return alphabet[Below(static_cast<unsigned int>(alphabet.size()))];
    }

    std::string TextOf(const std::string& alphabet, unsigned int maximum) {
        std::string text(Below(maximum + 1), ' ');
        for (char& c : text)
            c = CharacterOf(alphabet);
        return text;
    }
};

class Disagreement : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

inline std::string Shown(const std::string& value) { return "'" + value + "'"; }
template <typename T> std::string Shown(T* value) { return value ? "a pointer" : "NULL"; }
template <typename T> std::string Shown(const T& value) { return std::to_string(value); }

// Throws a Disagreement unless the two are equal.
template <typename T, typename U> void Agree(const T& library, const U& model, const char* what) {
    if (!(library == model))
        throw Disagreement(std::string(what) + ": the library has " + Shown(library) + ", the model " +
                           Shown(model));
}

} // namespace models

#endif
