#include "LoginPage.h"

#include "PasswordHasher.h"

#include <QRegularExpression>
#include <QStringDecoder>
#include <QUrl>
#include <QUrlQuery>

#include <map>

using namespace Qt::StringLiterals;

namespace {

constexpr auto csrfCookie = "ravlet_csrf";

const QString styles = uR"(
:root { color-scheme: light dark; --accent: #4f46e5; }
* { box-sizing: border-box; }
body { margin: 0; min-height: 100vh; display: grid; place-items: center;
       font: 16px/1.5 system-ui, "Noto Sans", sans-serif; background: #f4f4f8; color: #1c1c28; }
main { width: min(380px, 92vw); background: #fff; border-radius: 14px; padding: 32px;
       box-shadow: 0 8px 30px rgba(0,0,0,.08); }
h1 { font-size: 22px; margin: 0 0 4px; } p.lead { margin: 0 0 20px; color: #5b5b6b; }
label { display: block; font-weight: 600; margin: 14px 0 6px; }
input { width: 100%; padding: 10px 12px; border: 1px solid #c9c9d6; border-radius: 8px; font: inherit; }
button { width: 100%; margin-top: 20px; padding: 11px; border: 0; border-radius: 8px; font: inherit;
         font-weight: 600; background: var(--accent); color: #fff; cursor: pointer; }
button.secondary { background: transparent; color: var(--accent); border: 1px solid var(--accent); }
input:focus-visible, button:focus-visible, a:focus-visible { outline: 3px solid #a5b4fc; outline-offset: 2px; }
.message { padding: 10px 12px; border-radius: 8px; background: #fdecec; color: #8a1c1c; margin-bottom: 8px; }
.or { text-align: center; color: #8b8b99; margin: 20px 0 0; }
.switch { margin-top: 18px; text-align: center; } a { color: var(--accent); }
@media (prefers-color-scheme: dark) {
  body { background: #15151c; color: #ececf4; } main { background: #20202a; box-shadow: none; }
  p.lead { color: #a9a9b8; } input { background: #15151c; color: inherit; border-color: #3a3a4a; }
  .message { background: #3b1d1d; color: #ffc9c9; }
})"_s;

bool validState(const QString& state)
{
    static const QRegularExpression allowed(u"^[A-Za-z0-9._~-]{1,200}$"_s);
    return allowed.match(state).hasMatch();
}

QByteArray cookieValue(const HttpRequest& request, const QByteArray& name)
{
    for (const auto& item : request.header("Cookie").split(';')) {
        const auto trimmed = item.trimmed();
        if (trimmed.startsWith(name + '='))
            return trimmed.mid(name.size() + 1);
    }
    return {};
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// One name or value of the form: "+" is a space, "%" and two hex digits a byte, anything else
// itself; the bytes are then read as UTF-8, a leading byte order mark included. Done by hand: QUrl's decoding leaves some
// characters (U+FFFF, for one) percent-encoded, so a password holding one would not be the
// password typed, and QByteArray's decodes "%" followed by anything.
QString formText(QByteArrayView part)
{
    QByteArray bytes;
    bytes.reserve(part.size());
    for (qsizetype i = 0; i < part.size(); ++i) {
        const char c = part[i];
        if (c == '%' && i + 2 < part.size() && hexValue(part[i + 1]) >= 0
            && hexValue(part[i + 2]) >= 0) {
            bytes.append(char(hexValue(part[i + 1]) * 16 + hexValue(part[i + 2])));
            i += 2;
        } else {
            bytes.append(c == '+' ? ' ' : c);
        }
    }
    // QString::fromUtf8 would drop a leading U+FEFF, which is as much a part of a password as
    // any other character.
    return QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::ConvertInitialBom)(bytes);
}

} // namespace

LoginPage::Submission LoginPage::readForm(const QByteArray& body)
{
    // application/x-www-form-urlencoded; of a name given twice, the first counts.
    std::map<QString, QString> fields;
    for (const auto& pair : body.split('&')) {
        if (pair.isEmpty())
            continue;
        const auto equals = pair.indexOf('=');
        fields.try_emplace(formText(equals < 0 ? pair : pair.left(equals)),
                           equals < 0 ? QString() : formText(pair.mid(equals + 1)));
    }
    const auto field = [&fields](const QString& name) {
        const auto it = fields.find(name);
        return it == fields.end() ? QString() : it->second;
    };
    return {field(u"state"_s),   field(u"email"_s), field(u"password"_s),
            field(u"confirm"_s), field(u"csrf"_s),  field(u"action"_s)};
}

bool LoginPage::isLocalPeer(const HttpRequest& request)
{
    return request.peer.isLoopback() && request.header("X-Forwarded-For").isEmpty()
           && request.header("Forwarded").isEmpty();
}

HttpResponse LoginPage::show(const HttpRequest& request) const
{
    const auto state = request.query.queryItemValue(u"state"_s, QUrl::FullyDecoded);
    if (!validState(state))
        return {400,
                QByteArrayLiteral("text/plain; charset=utf-8"),
                QByteArrayLiteral(
                    "This sign-in link is incomplete. Start the sign-in again from RavletAI."),
                {}};
    const auto form = request.query.queryItemValue(u"mode"_s) == u"register"_s ? Form::createAccount
                                                                               : Form::signIn;
    return page(200, state, form, {}, {}, isLocalPeer(request));
}

HttpResponse LoginPage::submit(const HttpRequest& request)
{
    if (request.body.size() > 64 * 1024)
        return HttpResponse::error(413, u"The form is too large"_s);
    const auto form = readForm(request.body);
    const auto& state = form.state;
    const auto& email = form.email;
    const bool localPeer = isLocalPeer(request);
    if (!validState(state))
        return HttpResponse::error(400, u"Missing sign-in state"_s);

    // Double-submit token: a page of another site can post this form but cannot read our
    // cookie to copy it into the form.
    const auto cookie = cookieValue(request, csrfCookie);
    const auto token = form.csrf.toLatin1();
    const auto origin = request.header("Origin");
    const bool sameOrigin = origin.isEmpty() || origin == "null"
                            || QUrl(QString::fromLatin1(origin)).authority()
                                   == QString::fromLatin1(request.header("Host"));
    if (cookie.isEmpty() || !PasswordHasher::constantTimeEquals(cookie, token) || !sameOrigin)
        return page(403, state, Form::signIn, email, u"This form has expired. Please try again."_s,
                    localPeer);

    const auto action = form.action;
    std::optional<UserRecord> user;
    if (action == u"local"_s) {
        if (!m_localSignIn || !localPeer)
            return page(
                403, state, Form::signIn, email,
                u"Continuing without a password works only on the computer that runs the server."_s,
                localPeer);
        user = m_accounts.localAccount();
    } else if (action == u"register"_s) {
        if (form.password != form.confirm)
            return page(400, state, Form::createAccount, email,
                        u"The two passwords do not match."_s, localPeer);
        auto created = m_accounts.createAccount(email, form.password);
        if (auto* message = std::get_if<QString>(&created))
            return page(400, state, Form::createAccount, email, *message, localPeer);
        user = std::get<UserRecord>(created);
    } else {
        user = m_accounts.signIn(email, form.password);
        if (!user)
            return page(401, state, Form::signIn, email,
                        u"The e-mail address or the password is wrong."_s, localPeer);
    }

    const auto code = m_accounts.issueCode(user->id);
    QUrlQuery callback;
    callback.addQueryItem(u"code"_s, QString::fromLatin1(QUrl::toPercentEncoding(code)));
    callback.addQueryItem(u"state"_s, QString::fromLatin1(QUrl::toPercentEncoding(state)));
    const auto location = u"ravlet://auth-callback?"_s + callback.toString(QUrl::FullyEncoded);
    return {
        303,
        QByteArrayLiteral("text/html; charset=utf-8"),
        QByteArrayLiteral(
            "<!doctype html><title>Signed in</title><p>Signed in. You can return to RavletAI.</p>"),
        {{"Location", location.toUtf8()}, {"Cache-Control", "no-store"}}};
}

HttpResponse LoginPage::page(int status, const QString& state, Form form, const QString& email,
                             const QString& message, bool localPeer) const
{
    const auto csrf = PasswordHasher::randomBytes(24).toBase64(QByteArray::Base64UrlEncoding
                                                               | QByteArray::OmitTrailingEquals);
    const auto escapedState = state.toHtmlEscaped();
    const auto hidden = u"<input type=\"hidden\" name=\"state\" value=\""_s + escapedState
                        + u"\"><input type=\"hidden\" name=\"csrf\" value=\""_s
                        + QString::fromLatin1(csrf) + u"\">"_s;
    const bool creating = form == Form::createAccount;
    QString html = u"<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                   u"<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
                   u"<title>Sign in to RavletAI</title><style>"_s
                   + styles + u"</style></head><body><main>"_s;
    html +=
        creating
            ? u"<h1>Create your account</h1><p class=\"lead\">For RavletAI on this server.</p>"_s
            : u"<h1>Sign in to RavletAI</h1><p class=\"lead\">Use your e-mail address and password.</p>"_s;
    if (!message.isEmpty())
        html += u"<div class=\"message\" role=\"alert\">"_s + message.toHtmlEscaped() + u"</div>"_s;
    html += u"<form method=\"post\" action=\"/auth/login\">"_s + hidden;
    html += u"<input type=\"hidden\" name=\"action\" value=\""_s
            + (creating ? u"register"_s : u"signin"_s) + u"\">"_s;
    html += u"<label for=\"email\">E-mail address</label><input id=\"email\" name=\"email\" "
            u"type=\"email\" "
            u"autocomplete=\"email\" required autofocus value=\""_s
            + email.toHtmlEscaped() + u"\">"_s;
    html += u"<label for=\"password\">Password</label><input id=\"password\" name=\"password\" "
            u"type=\"password\" "
            u"minlength=\"8\" required autocomplete=\""_s
            + (creating ? u"new-password"_s : u"current-password"_s) + u"\">"_s;
    if (creating)
        html += u"<label for=\"confirm\">Repeat the password</label><input id=\"confirm\" "
                u"name=\"confirm\" "
                u"type=\"password\" minlength=\"8\" required autocomplete=\"new-password\">"_s;
    html += u"<button type=\"submit\">"_s + (creating ? u"Create account"_s : u"Sign in"_s)
            + u"</button></form>"_s;
    const auto base = u"/auth/login?state="_s + QString::fromLatin1(QUrl::toPercentEncoding(state));
    html += creating ? u"<p class=\"switch\">Already have an account? <a href=\""_s + base
                           + u"\">Sign in</a></p>"_s
                     : u"<p class=\"switch\">New here? <a href=\""_s + base
                           + u"&amp;mode=register\">Create an account</a></p>"_s;
    if (m_localSignIn && localPeer) {
        html +=
            u"<p class=\"or\">or</p><form method=\"post\" action=\"/auth/login\">"_s + hidden
            + u"<input type=\"hidden\" name=\"action\" value=\"local\">"
              u"<button type=\"submit\" class=\"secondary\">Continue on this computer</button></form>"_s;
    }
    html += u"</main></body></html>"_s;
    const auto cookie =
        QByteArray(csrfCookie) + '=' + csrf + "; Path=/auth; HttpOnly; SameSite=Strict";
    return {status,
            QByteArrayLiteral("text/html; charset=utf-8"),
            html.toUtf8(),
            {{"Set-Cookie", cookie},
             {"Cache-Control", "no-store"},
             {"X-Frame-Options", "DENY"},
             {"Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'"}}};
}
