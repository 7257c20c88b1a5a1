// The library's classes under random operations, held against the models.
//
// WINDOWS_RANDOM_SEED sets the seed, which is printed; WINDOWS_RANDOM_OPERATIONS the number of
// operations of each case: a million, or less where they or everything take longer.
#include <stdlib.h>

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "models/Exercises.h"
#include "support/recording_host.h"

namespace {

unsigned long FromEnvironment(const char* name, unsigned long otherwise) {
    const char* value = getenv(name);
    return value ? strtoul(value, nullptr, 10) : otherwise;
}

class RandomChoices : public models::Choices {
public:
    explicit RandomChoices(unsigned int seed) : m_generator(seed) {}

    unsigned int Below(unsigned int limit) override {
        return static_cast<unsigned int>((static_cast<unsigned long long>(m_generator()) * limit) >> 32);
    }

private:
    std::mt19937 m_generator;
};

void Exercise(void (*exercise)(models::Choices&, unsigned long), unsigned long usual = 1000000) {
    const auto seed =
        static_cast<unsigned int>(FromEnvironment("WINDOWS_RANDOM_SEED", std::random_device()()));
    const unsigned long slowness = FromEnvironment("WINDOWS_TEST_TIME_MULTIPLIER", 1);
    const unsigned long operations = FromEnvironment("WINDOWS_RANDOM_OPERATIONS", usual / slowness);
    printf("%lu operations, WINDOWS_RANDOM_SEED=%u\n", operations, seed);
    fflush(stdout); // seen also if the process ends in it
    Recorder::Pause();
    RandomChoices choices(seed);
    try {
        exercise(choices, operations);
    } catch (const models::Disagreement& disagreement) {
        ADD_FAILURE() << disagreement.what() << " (WINDOWS_RANDOM_SEED=" << seed << ")";
    }
}

} // namespace

TEST(RandomOperations, XString_does_what_its_model_does) { Exercise(models::ExerciseString); }
TEST(RandomOperations, CObList_does_what_its_model_does) { Exercise(models::ExerciseList); }
TEST(RandomOperations, CPtrArray_does_what_its_model_does) { Exercise(models::ExercisePointerArray); }
TEST(RandomOperations, CStringArray_does_what_its_model_does) { Exercise(models::ExerciseStringArray); }
TEST(RandomOperations, CMemFile_does_what_its_model_does) { Exercise(models::ExerciseMemoryFile); }
TEST(RandomOperations, BSTR_does_what_its_model_does) { Exercise(models::ExerciseBstr, 200000); }
TEST(RandomOperations, VARIANT_does_what_its_model_does) { Exercise(models::ExerciseVariant); }
