// The profile that sign-in reads from an access token's payload. The first byte picks whether
// the rest is a whole token as stored, or the payload of a token built here; either way a
// profile holds an id and an e-mail address that are real text, or there is none.
#include "AuthViewModel.h"
#include "FuzzSupport.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {

void checkProfile(const std::optional<AuthViewModel::UserProfile>& profile)
{
    if (!profile)
        return;
    Fuzz::check(Fuzz::isValidUnicode(profile->id), "a user id that is not valid Unicode",
                profile->id);
    Fuzz::check(Fuzz::isValidUnicode(profile->email), "an e-mail address that is not valid Unicode",
                profile->email);
    Fuzz::check(!profile->displayName.has_value(), "a display name read from a token");
}

// What a payload must give: its "sub" and "email" when both are texts that UTF-8 can carry.
std::optional<AuthViewModel::UserProfile> expectedProfile(const QByteArray& payload)
{
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(payload, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const auto sub = document.object().value(u"sub"_s);
    const auto email = document.object().value(u"email"_s);
    if (!sub.isString() || !email.isString() || !Fuzz::isValidUnicode(sub.toString())
        || !Fuzz::isValidUnicode(email.toString()))
        return std::nullopt;
    return AuthViewModel::UserProfile{sub.toString(), email.toString(), std::nullopt};
}

} // namespace

FUZZ_TARGET(input)
{
    const auto choice = input.takeByte();
    const auto rest = input.rest();
    if ((choice & 1) == 0) {
        checkProfile(AuthViewModel::decodeProfile(QString::fromUtf8(rest)));
        return;
    }
    // A token as the server signs it: the payload in plain base64, with or without padding.
    const auto options = (choice & 2) ? QByteArray::OmitTrailingEquals : QByteArray::Base64Encoding;
    const auto token = u"eyJhbGciOiJIUzI1NiJ9."_s + QString::fromLatin1(rest.toBase64(options))
                       + u".c2lnbmF0dXJl"_s;
    const auto profile = AuthViewModel::decodeProfile(token);
    checkProfile(profile);
    Fuzz::check(profile == expectedProfile(rest), "a payload read as another profile");
}
