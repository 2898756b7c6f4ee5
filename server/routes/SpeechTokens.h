#pragma once

#include "HttpTypes.h"
#include "ServerConfig.h"

#include <QString>

#include <optional>

class AccountService;
class Clock;
class HttpServer;
class InterviewStore;
class QObject;

// Where the program's speech goes: a recogniser named on the command line, or, without one, the
// server's built-in English recogniser behind its own listen socket. Either way the program
// speaks Deepgram's streaming protocol with a short-lived token of ours.
class SpeechTokens {
public:
    SpeechTokens(AccountService& accounts, InterviewStore& interviews, const ServerConfig& config,
                 Clock& clock);

    // Whether this build, on this machine, can recognise speech by itself.
    static bool isBuiltInRecognizerInstalled();

    // The vendor the account status names; nothing when speech is off.
    std::optional<QString> provider() const;
    HttpResponse token(const HttpRequest& request, const QString& userId) const;
    // The built-in recogniser's listen socket, when it is the one that serves.
    void attach(HttpServer& server, QObject* owner);

private:
    std::optional<QString> builtInOrigin(const HttpRequest& request) const;

    AccountService& m_accounts;
    InterviewStore& m_interviews;
    const ServerConfig& m_config;
    Clock& m_clock;
    bool m_usesBuiltIn = false;
};
