// Benchmarks that run Qt objects (sockets, timers, coroutines) need an application object.
#include <QCoreApplication>

#include <benchmark/benchmark.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
