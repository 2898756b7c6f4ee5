// Every route of the server that takes a JSON body, through the real routing with a signed-in
// user and a database in memory. The first byte picks the route; the rest is the body. A body
// is refused with a 4xx and a readable reason, or accepted and stored as sent: never a 500,
// and never text that reads back as something else.
#include "AccountService.h"
#include "Api.h"
#include "Clock.h"
#include "Database.h"
#include "FuzzSupport.h"
#include "Stores.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

class RecordingResponder final : public HttpResponder {
public:
    std::optional<HttpResponse> response;
    void respond(const HttpResponse& r) override { response = r; }
    void beginStream(int status, const QByteArray& contentType) override
    {
        response = HttpResponse{status, contentType, {}, {}};
    }
    void writeChunk(const QByteArray& bytes) override { response->body += bytes; }
    void endStream() override {}
    bool isConnected() const override { return true; }
    void setOnDisconnected(std::function<void()>) override {}
};

// One server for many inputs, started afresh now and then so the database stays small.
struct Server {
    ManualClock clock;
    std::unique_ptr<Database> db;
    std::unique_ptr<AccountService> accounts;
    std::unique_ptr<Api> api;
    QString userId;
    QByteArray bearer;
    QString refreshToken;

    Server()
    {
        db = Database::open(u":memory:"_s);
        accounts = std::make_unique<AccountService>(*db, clock, QByteArray(32, 'k'));
        ServerConfig config;
        config.telemetryEnabled = true;
        api = std::make_unique<Api>(*db, *accounts, clock, config, nullptr);
        const auto user = accounts->localAccount();
        const auto pair = accounts->exchange(accounts->issueCode(user.id));
        userId = user.id;
        bearer = "Bearer " + pair->accessToken.toLatin1();
        refreshToken = pair->refreshToken;
    }

    HttpResponse call(const QByteArray& method, const QString& path, const QByteArray& body)
    {
        HttpRequest request;
        request.method = method;
        request.path = path;
        request.headers = {{"Authorization", bearer}, {"Content-Type", "application/json"}};
        request.body = body;
        request.peer = QHostAddress::LocalHost;
        auto responder = std::make_shared<RecordingResponder>();
        api->handle(request, responder);
        Fuzz::check(responder->response.has_value(), "a request left without an answer", path);
        return *responder->response;
    }

    QString newSession()
    {
        const auto response = call("POST", u"/api/v1/interview/session"_s,
                                   R"({"languageInput":"en","languageOutput":"en"})");
        return Fuzz::object(response.body).value(u"id"_s).toString();
    }
};

// Never destroyed at exit: Qt's database registry may be gone by then.
Server& server()
{
    static Server* instance = nullptr;
    static int uses = 0;
    if (!instance || ++uses % 2000 == 0) {
        delete instance;
        instance = new Server;
    }
    return *instance;
}

void checkAnswer(const HttpResponse& response, const QString& route)
{
    Fuzz::check(response.status < 500 || response.status == 503, "a body that made the server fail",
                route + u' ' + QString::number(response.status));
    if (response.status >= 400) {
        const auto error = Fuzz::object(response.body).value(u"error"_s).toString();
        Fuzz::check(!error.isEmpty(), "a refusal without a reason", route);
        return;
    }
    if (response.status == 204)
        return;
    QJsonParseError parse{};
    const auto document = QJsonDocument::fromJson(response.body, &parse);
    Fuzz::check(parse.error == QJsonParseError::NoError && document.isObject(),
                "an answer that is not a JSON object", route);
}

// The lines a transcript body carries once each, as the route reads them.
void checkStoredTranscript(Server& s, const QString& sessionId, const QByteArray& body,
                           const HttpResponse& response)
{
    if (response.status != 200)
        return;
    const auto entries = Fuzz::object(body).value(u"entries"_s).toArray();
    QMap<QString, int> seen;
    for (const auto& entry : entries)
        ++seen[entry.toObject().value(u"id"_s).toString()];
    QMap<QString, TranscriptLine> stored;
    for (const auto& line : InterviewStore(*s.db).lines(s.userId, sessionId))
        stored.insert(line.id, line);
    const auto acknowledged = Fuzz::object(response.body).value(u"ids"_s).toArray();
    Fuzz::check(acknowledged.size() == entries.size(), "lines of the body not acknowledged");
    for (const auto& entry : entries) {
        const auto object = entry.toObject();
        const auto id = object.value(u"id"_s).toString();
        Fuzz::check(stored.contains(id), "an acknowledged line that is not stored", id);
        if (seen.value(id) != 1)
            continue;
        const auto& line = stored[id];
        Fuzz::check(line.content == object.value(u"content"_s).toString(),
                    "a line stored with other text", id);
        Fuzz::check(line.speaker == object.value(u"speaker"_s).toString(),
                    "a line of another speaker", id);
    }
}

} // namespace

FUZZ_TARGET(input)
{
    const auto which = input.takeByte() % 10;
    const auto body = input.rest();
    auto& s = server();

    switch (which) {
    case 0:
        checkAnswer(s.call("POST", u"/api/v1/auth/exchange"_s, body), u"exchange"_s);
        break;
    case 1:
        checkAnswer(s.call("POST", u"/api/v1/auth/refresh"_s, body), u"refresh"_s);
        break;
    case 2: {
        const auto response = s.call("POST", u"/api/v1/interview/session"_s, body);
        checkAnswer(response, u"session"_s);
        if (response.status == 200) {
            const auto sent = Fuzz::object(body);
            const auto made = Fuzz::object(response.body);
            Fuzz::check(made.value(u"languageInput"_s) == sent.value(u"languageInput"_s)
                            && made.value(u"languageOutput"_s) == sent.value(u"languageOutput"_s),
                        "a session stored with other languages");
        }
        break;
    }
    case 3:
        checkAnswer(s.call("PUT", u"/api/v1/interview/session/"_s + s.newSession(), body),
                    u"complete"_s);
        break;
    case 4: {
        const auto sessionId = s.newSession();
        const auto response =
            s.call("POST", u"/api/v1/interview/session/"_s + sessionId + u"/transcript"_s, body);
        checkAnswer(response, u"transcript"_s);
        checkStoredTranscript(s, sessionId, body, response);
        break;
    }
    case 5:
        checkAnswer(s.call("PATCH", u"/api/v1/chat/log/no-such-log"_s, body), u"log"_s);
        break;
    case 6: {
        const auto response = s.call("POST", u"/api/v1/telemetry/events"_s, body);
        checkAnswer(response, u"events"_s);
        if (response.status == 200)
            Fuzz::check(Fuzz::object(response.body).value(u"accepted"_s).toInteger()
                            == Fuzz::object(body).value(u"events"_s).toArray().size(),
                        "events accepted that were not sent, or sent and not accepted");
        break;
    }
    case 7:
        checkAnswer(s.call("POST", u"/api/v1/telemetry/crash"_s, body), u"crash"_s);
        break;
    case 8: {
        // No engine here: a body that passes the checks gets 503, any other a 400.
        const auto response = s.call("POST", u"/api/v1/chat/answer"_s, body);
        checkAnswer(response, u"answer"_s);
        Fuzz::check(response.status == 400 || response.status == 413 || response.status == 503,
                    "an answer without an engine");
        break;
    }
    default: {
        const auto response = s.call("POST", u"/api/v1/job-description"_s, body);
        checkAnswer(response, u"job"_s);
        if (response.status == 200) {
            const auto id = Fuzz::object(response.body).value(u"id"_s).toString();
            const auto stored = DocumentStore(*s.db).jobDescription(s.userId, id);
            const auto sent = Fuzz::object(body);
            Fuzz::check(stored && stored->title == sent.value(u"title"_s).toString()
                            && stored->content == sent.value(u"content"_s).toString(),
                        "a job description stored with other text");
        }
        break;
    }
    }
}
