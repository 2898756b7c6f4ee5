#pragma once

#include <QString>

#include <functional>

class AppDelegate;

struct RavletApplicationOptions {
    QString backendOrigin;
    // Called once the launch has finished and the event loop has nothing left to do
    // (benchmarks measure the start-up there).
    std::function<void(AppDelegate&)> whenIdle;
};

// The whole program: one running instance per session, the desktop's implementations, the
// shell, and the event loop until the user quits. Returns the exit status.
int runRavletApplication(int argc, char* argv[], RavletApplicationOptions options);
