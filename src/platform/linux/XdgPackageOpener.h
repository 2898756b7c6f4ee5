#pragma once

#include "PackageOpener.h"

// Opens a package (or its folder) with the desktop's own handler: for a .deb that is the
// system's software installer.
class XdgPackageOpener final : public PackageOpener {
public:
    bool open(const QString& path) override;
};
