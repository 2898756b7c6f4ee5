#pragma once

#include "AccountService.h"
#include "HttpServer.h"
#include "PracticeStore.h"
#include "RateWindow.h"
#include "ServerConfig.h"
#include "Stores.h"

#include <QHash>
#include <QJsonObject>

#include <QObject>
#include <variant>

#include <functional>
#include <memory>
#include <optional>

class Clock;
class SpeechSynthesizer;
class VendorTokens;
class SpeechTokens;
namespace ravlet::server {
class AnswerEngine;
}

// Every route of the server: parses and checks each request at the edge, calls one store or
// engine operation, and writes the answer.
class Api : public QObject {
    Q_OBJECT

public:
    static constexpr qint64 maxJsonBody = 1024 * 1024;
    static constexpr qint64 maxUploadBody = 12 * 1024 * 1024;

    // `engine` may be null: answers are then refused with 503.
    // `clock` also times out listen sockets that have gone quiet.
    Api(Database& db, AccountService& accounts, Clock& clock, ServerConfig config,
        ravlet::server::AnswerEngine* engine, QObject* parent = nullptr);
    ~Api() override;

    void attach(HttpServer& server);
    void handle(const HttpRequest& request, std::shared_ptr<HttpResponder> responder);

    using User = AccountService::SignedInUser;

private:
    using Params = QStringList;
    struct Route {
        QByteArray method;
        QStringList segments; // "*" matches one segment, which goes into Params
        bool needsUser = true;
        std::function<HttpResponse(const HttpRequest&, const User&, const Params&)> handler;
        // For a route that answers later (the streamed answer).
        std::function<void(const HttpRequest&, const User&, std::shared_ptr<HttpResponder>)>
            streamHandler;
    };

    void
    addRoute(const char* method, const QString& pattern,
             std::function<HttpResponse(const HttpRequest&, const User&, const Params&)> handler);
    void addPublicRoute(const char* method, const QString& pattern,
                        std::function<HttpResponse(const HttpRequest&, const Params&)> handler);
    // For a signed-in route that answers later, once a vendor or a child process has.
    void addDeferredRoute(
        const char* method, const QString& pattern,
        std::function<void(const HttpRequest&, const User&, std::shared_ptr<HttpResponder>)>
            handler);
    void registerAuthRoutes();
    void registerInterviewRoutes();
    void registerDocumentRoutes();
    void registerTelemetryRoutes();
    void registerPracticeRoutes();
    void mintVendorToken(std::shared_ptr<HttpResponder> responder);
    void speak(const HttpRequest& request, const User& user,
               std::shared_ptr<HttpResponder> responder);
    void streamAnswer(const HttpRequest& request, const User& user,
                      std::shared_ptr<HttpResponder> responder);
    std::optional<User> userOf(const HttpRequest& request) const;
    // A 429 whose JSON says which limit was met, with when to try again.
    static HttpResponse tooMany(const QString& message, qint64 retryAfterSeconds);
    // Nothing when the user may keep one more document of `adding` size, else the refusal.
    std::optional<HttpResponse> documentRefusal(const QString& userId, qint64 adding);
    // Nothing when the request's address may send telemetry now, else the refusal.
    std::optional<HttpResponse> telemetryRefusal(const HttpRequest& request);

    Database& m_db;
    AccountService& m_accounts;
    Clock& m_clock;
    ServerConfig m_config;
    ravlet::server::AnswerEngine* m_engine;
    InterviewStore m_interviews;
    DocumentStore m_documents;
    AnswerLogStore m_answerLogs;
    TelemetryStore m_telemetry;
    PracticeStore m_practice;
    std::unique_ptr<VendorTokens> m_vendorTokens; // null without a vendor key
    std::unique_ptr<SpeechSynthesizer> m_synthesizer;
    // The language of each user's latest practice questions, for the voice that speaks them.
    QHash<QString, QString> m_practiceLanguage;
    std::unique_ptr<SpeechTokens> m_speechTokens;
    QList<Route> m_routes;
    // Per user: answers started in the last minute and streaming now; speech tokens per
    // minute. Per address: telemetry and crash requests per minute.
    RateWindow m_answerStarts{m_clock, 60'000};
    QHash<QString, int> m_answersStreaming;
    RateWindow m_speechTokenMints{m_clock, 60'000};
    RateWindow m_telemetryRequests{m_clock, 60'000};
};

// The JSON object of a request body, or the 4xx answer that refuses it.
std::variant<QJsonObject, HttpResponse> jsonBody(const HttpRequest& request);

// A route handler that takes the request's JSON object in place of the request; a body that
// is not one is refused before the handler runs.
template<typename Handler>
auto withJsonBody(Handler handler)
{
    return [handler = std::move(handler)](const HttpRequest& request,
                                          const auto&... rest) -> HttpResponse {
        auto body = jsonBody(request);
        if (auto* refusal = std::get_if<HttpResponse>(&body))
            return *refusal;
        return handler(std::get<QJsonObject>(body), rest...);
    };
}
HttpResponse jsonResponse(int status, const QJsonObject& object);
