#include "LoginPage.h"

#include "PasswordHasher.h"

#include <QFile>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QUrl>
#include <QUrlQuery>

#include <cstring>
#include <map>

#include <unistd.h>

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
// itself; the bytes are then read as UTF-8, a leading byte order mark included. Done by hand:
// QUrl's decoding leaves some characters (U+FFFF, for one) percent-encoded, so a password holding
// one would not be the password typed, and QByteArray's decodes "%" followed by anything.
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

// Headers by which a proxy speaks for someone else: whoever sent them is not the person at
// this computer, whatever the connection's address.
bool isForwardingHeader(const QByteArray& name)
{
    static const QByteArrayList names{"forwarded",
                                      "via",
                                      "x-real-ip",
                                      "x-client-ip",
                                      "client-ip",
                                      "true-client-ip",
                                      "cf-connecting-ip",
                                      "fastly-client-ip",
                                      "x-cluster-client-ip",
                                      "x-proxyuser-ip",
                                      "x-original-forwarded-for"};
    const auto lower = name.toLower();
    return lower.startsWith("x-forwarded") || names.contains(lower);
}

// "0100007F:1F90" or the 32-digit IPv6 form: the address as the kernel keeps it (each 32-bit
// word in this machine's byte order) and the port.
std::optional<std::pair<QHostAddress, quint16>> socketEndpoint(const QByteArray& field)
{
    const auto colon = field.indexOf(':');
    bool ok = false;
    const auto port = field.mid(colon + 1).toUShort(&ok, 16);
    const auto hex = field.left(colon);
    if (colon < 0 || !ok || (hex.size() != 8 && hex.size() != 32))
        return std::nullopt;
    quint8 bytes[16] = {};
    for (qsizetype word = 0; word < hex.size() / 8; ++word) {
        const auto value = hex.mid(word * 8, 8).toUInt(&ok, 16);
        if (!ok)
            return std::nullopt;
        std::memcpy(bytes + word * 4, &value, 4);
    }
    if (hex.size() == 8)
        return std::pair{QHostAddress(quint32(bytes[0]) << 24 | quint32(bytes[1]) << 16
                                      | quint32(bytes[2]) << 8 | bytes[3]),
                         port};
    return std::pair{QHostAddress(bytes), port};
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
    if (!request.peer.isLoopback())
        return false;
    for (const auto& [name, value] : request.headers) {
        if (isForwardingHeader(name))
            return false;
    }
    // A forwarder that adds no header (ssh -R, socat, stunnel) still connects as its own user;
    // so does any other person logged in to this machine.
    const auto owner = loopbackConnectionOwner(request);
    return owner && *owner == ::geteuid();
}

std::optional<uint> loopbackConnectionOwner(const HttpRequest& request, const QString& procNet)
{
    if (!request.peer.isLoopback() || request.peerPort == 0 || request.localPort == 0)
        return std::nullopt;
    for (const auto* table : {"/tcp", "/tcp6"}) {
        QFile file(procNet + QLatin1String(table));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        // The kernel's files report no size: read to the end, not by size.
        const auto lines = file.readAll().split('\n');
        for (qsizetype i = 1; i < lines.size(); ++i) { // after the column names
            // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid ...
            const auto fields = lines[i].simplified().split(' ');
            if (fields.size() < 8 || fields[3] != "01") // established only
                continue;
            const auto client = socketEndpoint(fields[1]);
            const auto server = socketEndpoint(fields[2]);
            if (!client || !server || client->second != request.peerPort
                || server->second != request.localPort || !server->first.isLoopback()
                || !client->first.isEqual(request.peer, QHostAddress::TolerantConversion))
                continue;
            bool ok = false;
            const auto uid = fields[7].toUInt(&ok);
            if (ok)
                return uid;
        }
    }
    return std::nullopt;
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
    const auto form = request.query.queryItemValue(u"mode"_s) == u"register"_s && m_options.signUp
                          ? Form::createAccount
                          : Form::signIn;
    return page(200, state, form, {}, {}, isLocalPeer(request));
}

QCoro::Task<HttpResponse> LoginPage::submit(HttpRequest request)
{
    if (request.body.size() > 64 * 1024)
        co_return HttpResponse::error(413, u"The form is too large"_s);
    const auto form = readForm(request.body);
    const auto& state = form.state;
    const auto& email = form.email;
    const bool localPeer = isLocalPeer(request);
    if (!validState(state))
        co_return HttpResponse::error(400, u"Missing sign-in state"_s);

    if (!isGenuine(request, form))
        co_return page(403, state, Form::signIn, email,
                       u"This form has expired. Please try again."_s, localPeer);

    const auto action = form.action;
    const auto address = AccountService::normalisedEmail(email);
    std::optional<UserRecord> user;
    if (action == u"local"_s) {
        if (!m_options.localSignIn || !localPeer)
            co_return page(
                403, state, Form::signIn, email,
                u"Continuing without a password works only on the computer that runs the server."_s,
                localPeer);
        user = m_accounts.localAccount();
    } else if (action == u"register"_s) {
        if (!m_options.signUp)
            co_return page(403, state, Form::signIn, email,
                           u"Accounts on this server are created by its administrator."_s,
                           localPeer);
        if (form.password != form.confirm)
            co_return page(400, state, Form::createAccount, email,
                           u"The two passwords do not match."_s, localPeer);
        // Each new account costs a hash: counted against the address like a failure.
        if (const auto wait = m_limits.retryAfterMs({}, request.peer))
            co_return tooManyAttempts(request, state, email, wait);
        m_limits.recordAttempt(request.peer);
        auto created = co_await m_accounts.registerAccount(email, form.password);
        if (auto* message = std::get_if<QString>(&created))
            co_return page(400, state, Form::createAccount, email, *message, localPeer);
        user = std::get<UserRecord>(created);
    } else {
        // Refused before the hash: a guesser past the limit costs nothing.
        if (const auto wait = m_limits.retryAfterMs(address, request.peer))
            co_return tooManyAttempts(request, state, email, wait);
        user = co_await m_accounts.signIn(email, form.password);
        if (!user) {
            m_limits.recordFailure(address, request.peer);
            co_return page(401, state, Form::signIn, email,
                           u"The e-mail address or the password is wrong."_s, localPeer);
        }
        m_limits.recordSuccess(address);
    }

    co_return signedIn(m_accounts.issueCode(user->id), state);
}

bool LoginPage::isGenuine(const HttpRequest& request, const Submission& form)
{
    // Double-submit token: a page of another site can post this form but cannot read our
    // cookie to copy it into the form.
    const auto cookie = cookieValue(request, csrfCookie);
    const auto token = form.csrf.toLatin1();
    const auto origin = request.header("Origin");
    const bool sameOrigin = origin.isEmpty() || origin == "null"
                            || QUrl(QString::fromLatin1(origin)).authority()
                                   == QString::fromLatin1(request.header("Host"));
    return !cookie.isEmpty() && PasswordHasher::constantTimeEquals(cookie, token) && sameOrigin;
}

HttpResponse LoginPage::signedIn(const QString& code, const QString& state)
{
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

HttpResponse LoginPage::tooManyAttempts(const HttpRequest& request, const QString& state,
                                        const QString& email, qint64 retryAfterMs) const
{
    const auto seconds = (retryAfterMs + 999) / 1000;
    const auto minutes = (seconds + 59) / 60;
    const auto message = u"Too many failed sign-ins. Try again in %1 minute%2."_s.arg(minutes).arg(
        minutes == 1 ? QString() : u"s"_s);
    // A browser shows the page; any other client reads the JSON message.
    auto response = request.header("Accept").contains("text/html")
                        ? page(429, state, Form::signIn, email, message, isLocalPeer(request))
                        : HttpResponse::error(429, message);
    response.headers.append({"Retry-After", QByteArray::number(seconds)});
    return response;
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
    if (creating)
        html += u"<p class=\"switch\">Already have an account? <a href=\""_s + base
                + u"\">Sign in</a></p>"_s;
    else if (m_options.signUp)
        html += u"<p class=\"switch\">New here? <a href=\""_s + base
                + u"&amp;mode=register\">Create an account</a></p>"_s;
    if (m_options.localSignIn && localPeer) {
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
