#pragma once

#include "AccountService.h"
#include "HttpTypes.h"

// The sign-in page that the program opens in the browser. It ends in a redirect to
// "ravlet://auth-callback?code=…&state=…" with a one-time code.
class LoginPage {
public:
    LoginPage(AccountService& accounts, bool localSignIn)
        : m_accounts(accounts)
        , m_localSignIn(localSignIn)
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
    HttpResponse submit(const HttpRequest& request);

    // "Continue on this computer" is for the person at this machine: a loopback peer, not
    // reached through a proxy.
    static bool isLocalPeer(const HttpRequest& request);

private:
    enum class Form { signIn, createAccount };
    HttpResponse page(int status, const QString& state, Form form, const QString& email,
                      const QString& message, bool localPeer) const;

    AccountService& m_accounts;
    bool m_localSignIn;
};
