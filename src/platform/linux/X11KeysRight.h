#pragma once

#include "ShellInterfaces.h"

// Keys pressed in other programs can be seen when the windows run on an X server (XWayland
// included) that has the XInput 2 extension.
class X11KeysRight final : public GlobalKeysRight {
public:
    bool granted() override;
};
