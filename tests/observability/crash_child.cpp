// Installs the crash reporter, writing to argv[2], and then dies the way argv[1] says.
#include "CrashReporter.h"

#include <QCoreApplication>
#include <QString>

#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

using namespace Qt::StringLiterals;

namespace {

// The undefined-behaviour sanitiser would end the process itself; the fault is the point here.
[[gnu::noinline, gnu::no_sanitize_undefined]] void writeThroughNull()
{
    // A volatile pointer: the compiler can't see that it is null and drop the store.
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}

// Each level keeps a frame: the store after the call stops the compiler from turning the
// recursion into a loop.
[[gnu::noinline]] int descend(int depth)
{
    volatile char frame[256];
    frame[0] = char(depth);
    if (depth == 0) {
        writeThroughNull();
        return 0;
    }
    frame[1] = char(descend(depth - 1));
    return frame[0] + frame[1];
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 3)
        return 2;
    // Crashing is the point here, so leave no core files behind.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    prctl(PR_SET_DUMPABLE, 0);

    CrashReporter reporter(QString::fromLocal8Bit(argv[2]));
    // Were it called, "recording" would show in the report instead of "unknown".
    reporter.install(nullptr, [] { return u"recording"_s; });

    const std::string_view mode = argv[1];
    if (mode == "segv")
        writeThroughNull();
    else if (mode == "abort")
        std::abort();
    else if (mode == "throw")
        throw std::runtime_error("no room left");
    else if (mode == "throw-int")
        throw 42;
    else if (mode == "overflow")
        descend(std::numeric_limits<int>::max());
    return 2;
}
