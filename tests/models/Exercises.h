// Sequences of operations on the library's classes, each held against a simple model that follows the
// contract, oddities included.
//
// An exercise makes so many operations as the choices have it, and throws a Disagreement when the library
// does not do what the model says. It keeps within what callers may do: nothing in it is undefined, aborts or
// faults.
#ifndef MODELS_EXERCISES_H
#define MODELS_EXERCISES_H

#include "models/Choices.h"

namespace models {

void ExerciseString(Choices& choices, unsigned long operations);
void ExerciseList(Choices& choices, unsigned long operations);
void ExercisePointerArray(Choices& choices, unsigned long operations);
void ExerciseStringArray(Choices& choices, unsigned long operations);
void ExerciseMemoryFile(Choices& choices, unsigned long operations);
void ExerciseBstr(Choices& choices, unsigned long operations);
void ExerciseVariant(Choices& choices, unsigned long operations);

} // namespace models

#endif
