#pragma once

#include <QString>

// Hands a downloaded package, or the folder holding it, to the desktop, so the user can
// install it by hand when the program cannot replace itself.
class PackageOpener {
public:
    virtual ~PackageOpener() = default;
    virtual bool open(const QString& path) = 0;
};
