// Linked into the unit-test programs of a sanitizer build only.  Death tests
// end their child process through exit() on purpose, holding whatever the
// statement under test had allocated; a leak check at that exit would turn
// every such test into a failure.  So leaks are checked once, after the last
// test of the program, and never at exit.

#include <gtest/gtest.h>
#include <sanitizer/lsan_interface.h>

extern "C" const char* __asan_default_options() {
    return "leak_check_at_exit=0";
}

namespace {

class LeakCheckAtEnd : public testing::Environment {
  public:
    // Ends the program with LeakSanitizer's report when anything leaked.
    void TearDown() override { __lsan_do_leak_check(); }
};

testing::Environment* const leakCheck = testing::AddGlobalTestEnvironment(new LeakCheckAtEnd);

}  // namespace
