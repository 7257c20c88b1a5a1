// The test program's main.
#include <signal.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include "support/recording_host.h"
#include "support/resources.h"

#ifdef __SANITIZE_THREAD__

// What destroying a running thread does by its contract: it closes the queue that the thread reads, and
// cancels the thread, which then never releases the queue's lock.
extern "C" const char* __tsan_default_suppressions() {
    return "race_top:^close$\n"
           "mutex:CWinThread::~CWinThread\n";
}

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
