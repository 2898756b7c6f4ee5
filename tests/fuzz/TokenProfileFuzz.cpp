// The profile that sign-in reads from an access token's payload. The first byte picks whether
// the rest is a whole token as stored, or the payload of a token built here; either way a
// profile holds an id and an e-mail address that are real text, or there is none.
#include "AuthViewModel.h"
#include "FuzzSupport.h"
#include "Helpers.h"

using namespace Qt::StringLiterals;

FUZZ_TARGET(rest)
{
    const auto choice = Fuzz::takeByte(rest);
    // A token as the server signs it: the payload in plain base64, with or without padding.
    const auto options = (choice & 2) ? QByteArray::OmitTrailingEquals : QByteArray::Base64Encoding;
    const auto token = (choice & 1) == 0
                           ? QString::fromUtf8(rest)
                           : u"eyJhbGciOiJIUzI1NiJ9."_s
                                 + QString::fromLatin1(rest.toBase64(options)) + u".c2lnbmF0dXJl"_s;
    const auto profile = AuthViewModel::decodeProfile(token);
    if (profile) {
        Fuzz::checkText(profile->id, "a user id that is not valid Unicode");
        Fuzz::checkText(profile->email, "an e-mail address that is not valid Unicode");
        Fuzz::check(!profile->displayName, "a display name read from a token");
    }
    if ((choice & 1) == 0)
        return;
    // The payload's "sub" and "email" when both are texts that UTF-8 and the database can carry.
    const auto payload = Fuzz::object(rest);
    const auto sub = payload.value(u"sub"_s).toString();
    const auto email = payload.value(u"email"_s).toString();
    const bool readable = payload.value(u"sub"_s).isString() && payload.value(u"email"_s).isString()
                          && withValidUnicode(sub) == sub && withValidUnicode(email) == email;
    Fuzz::check(profile
                    == (readable ? std::optional(AuthViewModel::UserProfile{sub, email, {}})
                                 : std::nullopt),
                "a payload read as another profile");
}
