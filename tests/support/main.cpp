// The test program's main.
#include <signal.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "support/recording_host.h"
#include "support/resources.h"

#ifdef __SANITIZE_THREAD__

// Two things that are so by contract, and that ThreadSanitizer would report: destroying a running thread
// closes the queue that the thread reads, and mutexes are destroyed that somebody holds, a cancelled reader's
// above all.
extern "C" const char* __tsan_default_suppressions() { return "race:^close$\n"; }
extern "C" const char* __tsan_default_options() { return "report_destroy_locked=0"; }

#endif

int main(int argc, char** argv) {
    Recorder::Begin();
    signal(SIGPIPE, SIG_IGN);
    if (!getenv("GTEST_DEATH_TEST_STYLE"))
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleTest(&argc, argv);
    Resources::Install();
    return RUN_ALL_TESTS();
}
