// Makes the n-th call fail that the library makes to another library.
//
// CMakeLists.txt links the library's objects into one with --wrap, so that only the library's own
// calls come here: the tests, the servers and the other libraries are left alone.
#ifndef TESTS_FAULT_FAULT_WRAP_H
#define TESTS_FAULT_FAULT_WRAP_H

#include <string>

// From now on the `target`-th wrapped call fails; 0 only counts. A name restricts both to the calls
// of that function; null: every function.
void fault_arm(long target, const char* only);
void fault_disarm();

// Wrapped calls since fault_arm.
long fault_calls();
// The function that was made to fail; null when the target was not reached.
const char* fault_hit();
// Where it was called from, one address a line.
std::string fault_trace();

// Blocks of memory that the library has allocated and not freed.
long fault_live_blocks();

#endif
