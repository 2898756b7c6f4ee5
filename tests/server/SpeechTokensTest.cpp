// Where the speech token route sends the program: a configured recogniser, the built-in one for
// English, or a clear refusal.
#include "ServerHarness.h"

#include "SpeechTokens.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

struct Case {
    const char* name;
    std::optional<QString> speechEndpoint;
    bool offlineSpeech;
    QString publicOrigin;
    // The input language of the interview session opened before the token.
    QString languageInput;
    int status;
    // The endpoint of a granted token ("{self}" is this server's ws:// origin), or the error.
    QString expected;
};

const auto englishOnly =
    u"Offline speech recognition supports English only; configure a speech vendor for "_s;

// clang-format off
const Case cases[] = {
    {"a configured endpoint takes every language", u"ws://10.0.0.5:9100"_s, true, {}, u"de-DE"_s,
     200, u"ws://10.0.0.5:9100"_s},
    {"built in, auto detect", {}, true, {}, u"auto"_s, 200, u"{self}"_s},
    {"built in, British English", {}, true, {}, u"en-GB"_s, 200, u"{self}"_s},
    {"built in, behind a TLS proxy", {}, true, u"https://ravlet.example.org"_s, u"en-US"_s, 200,
     u"wss://ravlet.example.org"_s},
    {"built in refuses German", {}, true, {}, u"de-DE"_s, 503, englishOnly + u"German."_s},
    {"speech off", {}, false, {}, u"en-US"_s, 503,
     u"Speech recognition is not set up on this server: start ravlet-server with --speech-endpoint"_s},
};
// clang-format on
} // namespace

// GCC 12 with the sanitizers at -O1 takes the copy of a std::optional<QString> into the config
// for a read of uninitialised memory; it is not one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
TEST(SpeechTokensTest, TokensNameWhereSpeechGoes)
{
    const bool builtIn = SpeechTokens::isBuiltInRecognizerInstalled();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.speechEndpoint && c.offlineSpeech && !builtIn)
            continue; // PocketSphinx's English model is not installed
        ServerConfig config;
        config.speechEndpoint = c.speechEndpoint;
        config.offlineSpeech = c.offlineSpeech;
        config.publicOrigin = c.publicOrigin;
        ServerHarness server(config);
        const auto account = server.signUp();
        ASSERT_EQ(server
                      .call(account, "POST", u"/api/v1/interview/session"_s,
                            compact({{u"languageInput"_s, c.languageInput},
                                     {u"languageOutput"_s, u"en-US"_s}}))
                      .status,
                  200);
        const auto reply = server.call(account, "GET", u"/api/v1/speech/token"_s);
        const auto object = reply.json();
        EXPECT_EQ(reply.status, c.status) << reply.body.toStdString();
        if (reply.status == 200) {
            auto expected = c.expected;
            expected.replace(u"{self}"_s, server.base().replace(u"http://"_s, u"ws://"_s));
            EXPECT_EQ(object[u"provider"_s].toString() + u' ' + object[u"endpoint"_s].toString(),
                      u"deepgram "_s + expected);
            // Bound to the user and short-lived. (An access token is no speech token: the listen
            // socket's suite.)
            const auto token = object[u"token"_s].toString();
            EXPECT_EQ(server.accounts->verifySpeechToken(token), account.id);
            server.clock.advance(std::chrono::milliseconds(AccountService::speechTokenLifetimeMs));
            EXPECT_FALSE(server.accounts->verifySpeechToken(token));
        } else {
            EXPECT_EQ(object[u"error"_s].toString(), c.expected);
        }
    }
}
#pragma GCC diagnostic pop
