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

#include <memory>

using namespace Qt::StringLiterals;

namespace {

struct RecordingResponder final : HttpResponder {
    std::optional<HttpResponse> response;
    void respond(const HttpResponse& r) override { response = r; }
    void beginStream(int s, const QByteArray& t) override { response = HttpResponse{s, t, {}, {}}; }
    void writeChunk(const QByteArray& bytes) override { response->body += bytes; }
    void endStream() override {}
    bool isConnected() const override { return true; }
    void setOnDisconnected(std::function<void()>) override {}
};

// One server for many inputs, started afresh now and then so the database stays small.
struct Server {
    ManualClock clock;
    std::unique_ptr<Database> db = Database::open(u":memory:"_s);
    AccountService accounts{*db, clock, QByteArray(32, 'k')};
    Api api{*db, accounts, clock, ServerConfig{}, nullptr};
    QString userId = accounts.localAccount().id;
    QByteArray bearer =
        "Bearer " + accounts.exchange(accounts.issueCode(userId))->accessToken.toLatin1();

    HttpResponse call(const QByteArray& method, const QString& path, const QByteArray& body)
    {
        auto responder = std::make_shared<RecordingResponder>();
        api.handle({.method = method,
                    .path = path,
                    .headers = {{"Authorization", bearer}, {"Content-Type", "application/json"}},
                    .body = body,
                    .peer = QHostAddress(QHostAddress::LocalHost)},
                   responder);
        Fuzz::check(responder->response.has_value(), "a request left without an answer", path);
        return *responder->response;
    }
};

Server& server()
{
    // Never destroyed at exit: Qt's database registry may be gone by then.
    static Server* instance = nullptr;
    static int uses = 0;
    if (uses++ % 2000 == 0) {
        delete instance;
        instance = new Server;
    }
    return *instance;
}

void checkAnswer(const HttpResponse& response, const QString& route)
{
    Fuzz::check(response.status < 500 || response.status == 503, "a body that made the server fail",
                route + u' ' + QString::number(response.status));
    if (response.status >= 400)
        Fuzz::check(!Fuzz::object(response.body).value(u"error"_s).toString().isEmpty(),
                    "a refusal without a reason", route);
    else if (response.status != 204)
        Fuzz::check(QJsonDocument::fromJson(response.body).isObject(),
                    "an answer that is not a JSON object", route);
}

// Every line of an accepted transcript body is acknowledged and stored; one sent once in the body
// is stored with its text and speaker.
void checkStoredTranscript(Server& s, const QString& sessionId, const QJsonObject& sent,
                           const QJsonObject& answer)
{
    const auto entries = sent.value(u"entries"_s).toArray();
    Fuzz::check(answer.value(u"ids"_s).toArray().size() == entries.size(),
                "lines of the body not acknowledged");
    QMap<QString, int> times;
    for (const auto& entry : entries)
        ++times[entry[u"id"_s].toString()];
    QMap<QString, TranscriptLine> stored;
    for (const auto& line : InterviewStore(*s.db).lines(s.userId, sessionId))
        stored.insert(line.id, line);
    for (const auto& entry : entries) {
        const auto id = entry[u"id"_s].toString();
        Fuzz::check(stored.contains(id), "an acknowledged line that is not stored", id);
        Fuzz::check(times[id] > 1
                        || (stored[id].content == entry[u"content"_s].toString()
                            && stored[id].speaker == entry[u"speaker"_s].toString()),
                    "a line stored with other text or of another speaker", id);
    }
}

} // namespace

FUZZ_TARGET(input)
{
    // "%1" is a session made for the request.
    static const std::pair<QByteArray, QString> routes[] = {
        {"POST", u"/api/v1/auth/exchange"_s},
        {"POST", u"/api/v1/auth/refresh"_s},
        {"POST", u"/api/v1/interview/session"_s},
        {"PUT", u"/api/v1/interview/session/%1"_s},
        {"POST", u"/api/v1/interview/session/%1/transcript"_s},
        {"PATCH", u"/api/v1/chat/log/no-such-log"_s},
        {"POST", u"/api/v1/telemetry/events"_s},
        {"POST", u"/api/v1/telemetry/crash"_s},
        {"POST", u"/api/v1/chat/answer"_s},
        {"POST", u"/api/v1/job-description"_s},
        {"POST", u"/api/v1/mock-interview/questions"_s}};
    const auto which = Fuzz::takeByte(input) % std::size(routes);
    const auto& [method, route] = routes[which];
    auto& s = server();
    const bool inSession = route.contains(u"%1");
    const auto made = inSession ? s.call("POST", u"/api/v1/interview/session"_s,
                                         R"({"languageInput":"en","languageOutput":"en"})")
                                : HttpResponse();
    const auto sessionId = Fuzz::object(made.body).value(u"id"_s).toString();
    const auto response = s.call(method, inSession ? route.arg(sessionId) : route, input);
    checkAnswer(response, route);
    // No engine here: a body that passes the checks gets 503, any other a 400.
    if (which == 8)
        Fuzz::check(response.status == 400 || response.status == 413 || response.status == 503,
                    "an answer without an engine");
    if (response.status != 200)
        return;
    const auto sent = Fuzz::object(input);
    const auto answer = Fuzz::object(response.body);
    if (which == 2)
        Fuzz::check(answer.value(u"languageInput"_s) == sent.value(u"languageInput"_s)
                        && answer.value(u"languageOutput"_s) == sent.value(u"languageOutput"_s),
                    "a session stored with other languages");
    if (which == 4)
        checkStoredTranscript(s, sessionId, sent, answer);
    if (which == 6)
        Fuzz::check(answer.value(u"accepted"_s).toInteger()
                        == sent.value(u"events"_s).toArray().size(),
                    "events accepted that were not sent, or sent and not accepted");
    if (which == 9) {
        const auto stored =
            DocumentStore(*s.db).jobDescription(s.userId, answer.value(u"id"_s).toString());
        Fuzz::check(stored && stored->title == sent.value(u"title"_s).toString()
                        && stored->content == sent.value(u"content"_s).toString(),
                    "a job description stored with other text");
    }
    if (which == 10)
        Fuzz::check(answer.value(u"questions"_s).toArray().size()
                        == sent.value(u"count"_s).toInteger(8),
                    "another number of questions than asked for");
}
