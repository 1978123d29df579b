#ifndef VELTA_TESTS_SYSTEM_TARGET_H
#define VELTA_TESTS_SYSTEM_TARGET_H

// Whether what was built is of another kind than the machine that runs it.
constexpr bool emulated = sizeof(VELTA_EMULATOR) > 1;

#endif  // VELTA_TESTS_SYSTEM_TARGET_H
