#include "Api.h"

#include "TaskHandle.h"

#include "Helpers.h"
#include "LoginPage.h"
#include "SpeechSynthesizer.h"
#include "SpeechTokens.h"
#include "TranscriptSocket.h"
#include "VendorTokens.h"

#include <cstdio>

#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

bool isUnicode(const QString& text)
{
    return withValidUnicode(text) == text;
}

// A "\ud800" escape is valid JSON but half a character, and "\uffff" is no character at all:
// stored, either would read back as other text. Keys count too, as some objects are stored whole.
bool holdsOnlyUnicode(const QJsonValue& value)
{
    if (value.isString())
        return isUnicode(value.toString());
    if (value.isArray()) {
        const auto array = value.toArray();
        return std::all_of(array.begin(), array.end(),
                           [](const QJsonValue& item) { return holdsOnlyUnicode(item); });
    }
    if (value.isObject()) {
        const auto object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!isUnicode(it.key()) || !holdsOnlyUnicode(it.value()))
                return false;
        }
    }
    return true;
}

} // namespace

std::variant<QJsonObject, HttpResponse> jsonBody(const HttpRequest& request)
{
    if (request.body.size() > Api::maxJsonBody)
        return HttpResponse::error(413, u"The request body is too large"_s);
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(request.body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return HttpResponse::error(400, u"The request body must be a JSON object"_s);
    if (!holdsOnlyUnicode(document.object()))
        return HttpResponse::error(400, u"The request body holds text that is not Unicode"_s);
    return document.object();
}

HttpResponse jsonResponse(int status, const QJsonObject& object)
{
    return HttpResponse::json(status, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

Api::Api(Database& db, AccountService& accounts, Clock& clock, ServerConfig config,
         ravlet::server::AnswerEngine* engine, QObject* parent)
    : QObject(parent)
    , m_db(db)
    , m_accounts(accounts)
    , m_clock(clock)
    , m_config(std::move(config))
    , m_engine(engine)
    , m_interviews(db)
    , m_documents(db)
    , m_answerLogs(db)
    , m_telemetry(db)
    , m_practice(db)
    , m_synthesizer(std::make_unique<SpeechSynthesizer>(m_config.espeakProgram, m_clock))
    , m_speechTokens(std::make_unique<SpeechTokens>(accounts, m_interviews, m_config, clock))
{
    if (m_config.speechVendor)
        m_vendorTokens = std::make_unique<VendorTokens>(*m_config.speechVendor, m_clock);
    registerAuthRoutes();
    registerInterviewRoutes();
    registerDocumentRoutes();
    registerTelemetryRoutes();
    registerPracticeRoutes();
    m_routes.append({"POST",
                     u"/api/v1/chat/answer"_s.split(u'/', Qt::SkipEmptyParts),
                     true,
                     {},
                     [this](const HttpRequest& request, const User& user,
                            std::shared_ptr<HttpResponder> responder) {
                         streamAnswer(request, user, std::move(responder));
                     }});
    // For load balancers and operators: which part failed, without the database's own words
    // (they may name hosts), which go to the log.
    addPublicRoute("GET", u"/health"_s, [this](const HttpRequest&, const Params&) {
        if (const auto failure = m_db.check()) {
            std::fprintf(stderr, "ravlet-server: health: database: %s\n", qPrintable(*failure));
            return jsonResponse(503, {{u"status"_s, u"error"_s},
                                      {u"database"_s, u"unavailable"_s},
                                      {u"error"_s, u"The database does not answer"_s}});
        }
        return jsonResponse(200, {{u"status"_s, u"ok"_s}, {u"database"_s, u"ok"_s}});
    });
}

Api::~Api() = default;

void Api::attach(HttpServer& server)
{
    server.setRequestHandler(
        [this](const HttpRequest& request, std::shared_ptr<HttpResponder> responder) {
            handle(request, std::move(responder));
        });
    TranscriptSocket::attach(server, m_accounts, m_interviews, this);
    m_speechTokens->attach(server, this);
}

void Api::addRoute(
    const char* method, const QString& pattern,
    std::function<HttpResponse(const HttpRequest&, const User&, const Params&)> handler)
{
    m_routes.append({QByteArray(method),
                     pattern.split(u'/', Qt::SkipEmptyParts),
                     true,
                     std::move(handler),
                     {}});
}

void Api::addPublicRoute(const char* method, const QString& pattern,
                         std::function<HttpResponse(const HttpRequest&, const Params&)> handler)
{
    m_routes.append(
        {QByteArray(method),
         pattern.split(u'/', Qt::SkipEmptyParts),
         false,
         [handler = std::move(handler)](const HttpRequest& request, const User&,
                                        const Params& params) { return handler(request, params); },
         {}});
}

void Api::addDeferredRoute(
    const char* method, const QString& pattern,
    std::function<void(const HttpRequest&, const User&, std::shared_ptr<HttpResponder>)> handler)
{
    m_routes.append({QByteArray(method),
                     pattern.split(u'/', Qt::SkipEmptyParts),
                     true,
                     {},
                     std::move(handler)});
}

std::optional<Api::User> Api::userOf(const HttpRequest& request) const
{
    const auto authorization = request.header("Authorization");
    if (!authorization.startsWith("Bearer "))
        return std::nullopt;
    return m_accounts.verifyAccessToken(QString::fromLatin1(authorization.mid(7).trimmed()));
}

void Api::handle(const HttpRequest& request, std::shared_ptr<HttpResponder> responder)
{
    // Split before decoding, so that an id holding "/" stays one segment.
    QStringList segments;
    for (const auto& segment : request.path.split(u'/', Qt::SkipEmptyParts))
        segments.append(QUrl::fromPercentEncoding(segment.toUtf8()));
    bool pathMatched = false;
    for (const auto& route : std::as_const(m_routes)) {
        if (route.segments.size() != segments.size())
            continue;
        Params params;
        bool matches = true;
        for (qsizetype i = 0; i < segments.size() && matches; ++i) {
            if (route.segments[i] == u"*"_s)
                params.append(segments[i]);
            else
                matches = route.segments[i] == segments[i];
        }
        if (!matches)
            continue;
        pathMatched = true;
        if (route.method != request.method)
            continue;
        User user;
        if (route.needsUser) {
            const auto signedIn = userOf(request);
            if (!signedIn) {
                responder->respond(HttpResponse::error(401, u"Authentication required"_s));
                return;
            }
            user = *signedIn;
        }
        try {
            if (route.streamHandler)
                route.streamHandler(request, user, responder);
            else
                responder->respond(route.handler(request, user, params));
        } catch (const std::exception& error) {
            // Details stay in the log: they may name tables or values.
            qWarning("Request to %s failed: %s", qPrintable(request.path), error.what());
            responder->respond(
                HttpResponse::error(500, u"The server could not complete the request"_s));
        }
        return;
    }
    responder->respond(pathMatched ? HttpResponse::error(405, u"Method not allowed"_s)
                                   : HttpResponse::error(404, u"Not found"_s));
}

namespace {

// The sign-in form answers after its password hash, which runs off the event loop.
QCoro::Task<> answerForm(std::shared_ptr<LoginPage> page, HttpRequest request,
                         std::shared_ptr<HttpResponder> responder)
{
    HttpResponse response;
    try {
        response = co_await page->submit(std::move(request));
    } catch (const std::exception& error) {
        qWarning("Request to /auth/login failed: %s", error.what());
        response = HttpResponse::error(500, u"The server could not complete the request"_s);
    }
    responder->respond(response);
}

} // namespace

void Api::registerAuthRoutes()
{
    addPublicRoute(
        "POST", u"/api/v1/auth/exchange"_s,
        withJsonBody([this](const QJsonObject& object, const Params&) {
            const auto pair = m_accounts.exchange(object.value(u"code"_s).toString());
            if (!pair)
                return HttpResponse::error(401, u"The sign-in code is invalid or has expired"_s);
            return jsonResponse(200, {{u"accessToken"_s, pair->accessToken},
                                      {u"refreshToken"_s, pair->refreshToken},
                                      {u"user"_s, QJsonObject{{u"id"_s, pair->user.id},
                                                              {u"email"_s, pair->user.email}}}});
        }));
    addPublicRoute(
        "POST", u"/api/v1/auth/refresh"_s,
        withJsonBody([this](const QJsonObject& object, const Params&) {
            const auto pair = m_accounts.refresh(object.value(u"refreshToken"_s).toString());
            if (!pair)
                return HttpResponse::error(401, u"The session has ended; sign in again"_s);
            return jsonResponse(200, {{u"accessToken"_s, pair->accessToken},
                                      {u"refreshToken"_s, pair->refreshToken}});
        }));

    // Public: the access token may have run out by the time someone signs out. The answer is
    // the same whether or not the token was known.
    addPublicRoute("POST", u"/api/v1/auth/logout"_s,
                   withJsonBody([this](const QJsonObject& object, const Params&) {
                       m_accounts.signOut(object.value(u"refreshToken"_s).toString());
                       return HttpResponse::noContent();
                   }));

    auto page = std::make_shared<LoginPage>(
        m_accounts, m_clock, LoginPage::Options{m_config.localSignIn, m_config.signUp});
    addPublicRoute("GET", u"/auth/login"_s, [page](const HttpRequest& request, const Params&) {
        return page->show(request);
    });
    m_routes.append(
        {QByteArrayLiteral("POST"),
         {u"auth"_s, u"login"_s},
         false,
         {},
         [page](const HttpRequest& request, const User&, std::shared_ptr<HttpResponder> responder) {
             TaskHandle::run([&](const CancellationToken&) {
                 return answerForm(page, request, std::move(responder));
             });
         }});

    addRoute("GET", u"/api/v1/subscription/status"_s,
             [this](const HttpRequest&, const User&, const Params&) {
                 QJsonObject status;
                 if (m_config.speechVendor)
                     status.insert(u"speechProvider"_s, vendorName(m_config.speechVendor->vendor));
                 else if (const auto provider = m_speechTokens->provider())
                     status.insert(u"speechProvider"_s, *provider);
                 return jsonResponse(200, status);
             });
    addDeferredRoute("GET", u"/api/v1/speech/token"_s,
                     [this](const HttpRequest& request, const User& user,
                            std::shared_ptr<HttpResponder> responder) {
                         const auto limit = m_config.quotas.speechTokensPerMinute;
                         if (!m_speechTokenMints.take(user.id, limit)) {
                             responder->respond(tooMany(
                                 u"Too many speech tokens: at most %1 per minute"_s.arg(limit),
                                 m_speechTokenMints.retryAfterSeconds(user.id)));
                             return;
                         }
                         // A vendor's key comes first: the operator gave it for quality.
                         if (m_vendorTokens)
                             mintVendorToken(std::move(responder));
                         else
                             responder->respond(m_speechTokens->token(request, user.id));
                     });
}
