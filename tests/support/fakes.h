// Stand-ins for calls of the system and of other libraries, on Linux alone: CMakeLists.txt links
// the library's objects into one whose calls come here first, so that tests, peers and the other
// libraries are left alone. The clock and the name look-ups replace those of the whole process.
#ifndef TESTS_SUPPORT_FAKES_H
#define TESTS_SUPPORT_FAKES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/host.h"

// Calls `first` to `first + count - 1` of the library from now on fail, counted among those of
// `function` (empty: of all that can fail); first 0: none. "uv_write callback" lets the write
// begin and reports an error.
void fail_calls(const std::string& function, long first, long count = 1);
void fail_nothing();
std::string failed_at();  // the function that was made to fail last, and its callers; or empty

// The monotonic clock goes on by so much more, and the loop looks at its timers.
void advance_clock(int seconds);
// Second after second until the condition holds; the number of them, at most 1000.
int seconds_until(const std::function<bool()>& condition);

// Names of the test's own, in the resolver's order. The name "hang" hangs.
void set_name(const std::string& name, std::vector<std::string> addresses);
int hanging_lookups();
void release_lookups();
// The name "hang" hangs while this lives, and again when an earlier test released it.
struct held_lookups : not_copied {
    held_lookups();
    ~held_lookups() {
        release_lookups();
    }
};

// A port on 127.0.0.1 that answers no connection attempt: its queue of pending connections is full
// and nobody accepts.
class blackhole : not_copied {
  public:
    blackhole();
    ~blackhole();
    const std::uint16_t port = 0;

  private:
    std::vector<int> sockets_;
};

// Blocks of memory, as the library's own are counted.
void* new_block(std::size_t size);  // filled with zeros
void free_block(void* block);

#endif
