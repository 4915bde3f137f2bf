// Of support/fakes.h, Windows has the blocks of memory, uncounted. A test that needs more, and that
// CMakeLists.txt does not leave out, ends its program here.
#include "support/fakes.h"

#include <cstdio>
#include <cstdlib>

namespace {

int missing(const char* what) {
    std::fprintf(stderr, "%s: not on Windows\n", what);
    std::_Exit(1);
}

}  // namespace

void fail_calls(const std::string&, long, long) {
    missing("fail_calls");
}
void fail_nothing() {
}
void advance_clock(int) {
    missing("advance_clock");
}
void set_name(const std::string&, std::vector<std::string>) {
    missing("set_name");
}
int hanging_lookups() {
    return missing("hanging_lookups");
}
void release_lookups() {
}
held_lookups::held_lookups() {
    missing("held_lookups");
}
blackhole::blackhole() {
    missing("blackhole");
}
blackhole::~blackhole() {
}

void* new_block(std::size_t size) {
    return std::calloc(1, size);
}
void free_block(void* block) {
    std::free(block);
}
