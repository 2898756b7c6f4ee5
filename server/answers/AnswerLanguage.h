#pragma once

#include <QString>

namespace ravlet::server {

// The client sends a code such as "de-DE" or "auto"; other callers may send a name.

// True for an empty language, "auto", and any form of English ("en", "en-GB", "English").
bool isEnglishOrUnset(const QString& language);

// "de-DE" -> "German (Germany)"; a name, or a code Qt does not know, comes back as given.
QString languageName(const QString& language);

} // namespace ravlet::server
