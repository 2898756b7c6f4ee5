#pragma once

#include <string>

namespace CrashChild {

// The reason of the child's uncaught exception: longer than a report keeps, with characters
// that JSON must escape, one that takes two UTF-16 units and one malformed byte before the cut,
// and two-byte characters across it.
inline std::string longReason()
{
    std::string reason = "quote \" backslash \\ newline \n tab \t bell \x07 "
                         "clef \xF0\x9D\x84\x9E bad \xFF end ";
    while (reason.size() < 1500)
        reason += "\xC3\xA9";
    return reason;
}

} // namespace CrashChild
