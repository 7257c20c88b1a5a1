// Quiet host: no event of the log passes.
#include <signal.h>

#include <benchmark/benchmark.h>
#include <reference_host/reference_host.h>

#ifdef BENCH_QT
#include <QCoreApplication>
#endif

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    reference_host::SetMaximumSeverity(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
#ifdef BENCH_QT
    const QCoreApplication application(argc, argv); // without one no event is delivered
#endif
    benchmark::RunSpecifiedBenchmarks();
}
