#pragma once

#include "AccountService.h"
#include "HttpTypes.h"
#include "SignInLimits.h"

#include <QCoroTask>

#include <optional>

// The sign-in page that the program opens in the browser. It ends in a redirect to
// "ravlet://auth-callback?code=…&state=…" with a one-time code.
class LoginPage {
public:
    struct Options {
        bool localSignIn = true;
        bool signUp = true;
    };
    LoginPage(AccountService& accounts, const Clock& clock, Options options)
        : m_accounts(accounts)
        , m_limits(clock)
        , m_options(options)
    {
    }

    // The fields of a posted form (application/x-www-form-urlencoded), decoded.
    struct Submission {
        QString state;
        QString email;
        QString password;
        QString confirm;
        QString csrf;
        QString action;
        friend bool operator==(const Submission&, const Submission&) = default;
    };
    static Submission readForm(const QByteArray& body);

    HttpResponse show(const HttpRequest& request) const;
    // Answers once the password has been checked on the hashing pool.
    QCoro::Task<HttpResponse> submit(HttpRequest request);

    // "Continue on this computer" is for the person at this machine: a loopback connection
    // opened by this server's own OS user, with no sign of a proxy in between.
    static bool isLocalPeer(const HttpRequest& request);

private:
    enum class Form { signIn, createAccount };
    HttpResponse page(int status, const QString& state, Form form, const QString& email,
                      const QString& message, bool localPeer) const;

    // The form came from our own page: its token matches our cookie and its origin is ours.
    static bool isGenuine(const HttpRequest& request, const Submission& form);
    static HttpResponse signedIn(const QString& code, const QString& state);
    HttpResponse tooManyAttempts(const HttpRequest& request, const QString& state,
                                 const QString& email, qint64 retryAfterMs) const;

    AccountService& m_accounts;
    SignInLimits m_limits;
    Options m_options;
};

// The OS user that owns the client end of the request's TCP connection, from the kernel's
// tables in `procNet` (tcp and tcp6); nothing when the request did not come over loopback or
// its connection is not found.
std::optional<uint> loopbackConnectionOwner(const HttpRequest& request,
                                            const QString& procNet = QStringLiteral("/proc/net"));
