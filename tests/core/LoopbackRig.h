#pragma once

// The interview over real sockets on loopback: the API client against the fake backend, a
// Deepgram recogniser against the fake vendor (reached through the speech token's endpoint),
// and the transcript channel against its fake server. Only the two audio sources are fed by
// hand. The backend's trouble is scripted by counts that its routes spend request by request.

#include "QtPrinters.h"

#include "AppStrings.h"
#include "AuthTokenStore.h"
#include "FakeBackend.h"
#include "FakeTranscriptChannel.h"
#include "FakeVendorServer.h"
#include "InterviewViewModel.h"
#include "LoopbackInterview.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <array>

using namespace Qt::StringLiterals;

inline QByteArray compactJson(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Spends one of the failures scripted in `budget`, if any are left.
inline bool spend(int& budget)
{
    return budget > 0 && budget-- > 0;
}

template<typename ClockType>
struct LoopbackRig {
    using Response = FakeBackend::Response;

    LoopbackRig()
    {
        settings.setOutputLanguage(u"en"_s);
        client.setAccessToken(u"access-1"_s);
        vm.setBackend(interviewBackend);
        vm.setLoggedIn(true);
        prepareSessionRoutes(1);
        backend.setRoute("GET", "/api/v1/subscription/status",
                         Response::json(200, R"({"speechProvider":"deepgram"})"));
        backend.setHandler("POST", "/api/v1/interview/session",
                           [this](const FakeBackend::Request& request) {
                               auto session = QJsonDocument::fromJson(request.body).object();
                               session.insert(u"id"_s, sessionId(++sessions));
                               session.insert(u"startedAt"_s, u"2024-05-01T10:00:00.000Z"_s);
                               session.insert(u"status"_s, u"active"_s);
                               return Response::json(200, compactJson(session));
                           });
        backend.setHandler("GET", "/api/v1/speech/token", [this](const FakeBackend::Request&) {
            if (spend(tokenFailures))
                return Response::json(503, "{}");
            const QJsonObject token{
                {u"provider"_s, u"deepgram"_s},
                {u"token"_s, u"speech-"_s + QString::number(++speechTokens)},
                {u"endpoint"_s, spend(stallingTokens) ? stallingEndpoint : vendor.origin()}};
            return Response::json(200, compactJson(token));
        });
        backend.setRoute(
            "POST", "/api/v1/chat/answer",
            Response::stream({"data: {\"logId\":\"log-7\"}\n\n",
                              "data: {\"content\":\"I built \"}\n\n",
                              "data: {\"content\":\"a mixing desk.\"}\n\ndata: [DONE]\n\n"},
                             5));
        backend.setRoute("PATCH", "/api/v1/chat/log/log-7", Response::json(200, "{}"));
    }

    static QString sessionId(int number) { return u"session-"_s + QString::number(number); }
    static QByteArray sessionPath(int number)
    {
        return "/api/v1/interview/session/" + sessionId(number).toUtf8();
    }

    // The session's own routes exist before the session does: handlers are not added while
    // the backend runs one.
    void prepareSessionRoutes(int number)
    {
        backend.setHandler("PUT", sessionPath(number), [this](const FakeBackend::Request&) {
            return Response::json(spend(completeFailures) ? 503 : 200, "{}");
        });
        backend.setHandler(
            "POST", sessionPath(number) + "/transcript",
            [this](const FakeBackend::Request& request) {
                if (spend(postFailures))
                    return Response::json(502, "{}");
                for (const auto& entry :
                     QJsonDocument::fromJson(request.body).object().value(u"entries"_s).toArray())
                    delivered[entry[u"id"_s].toString()] = entry[u"content"_s].toString();
                return Response::json(200, "{}");
            });
    }

    InterviewViewModel::Services services()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.makeRecognizer = [this, vendorRecognizer = vendorRecognizers(clock)](
                               SpeechProvider provider, TranscriptEntry::Speaker speaker) {
            auto recognizer = vendorRecognizer(provider, speaker);
            recognizers[std::size_t(speaker)] = recognizer;
            return recognizer;
        };
        s.makeTranscriptChannel = [this] {
            return std::make_shared<TranscriptUploadChannel>(clock);
        };
        return s;
    }

    ClockType clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    FakeBackend backend;
    FakeVendorServer vendor;
    FakeTranscriptChannel channelServer;
    InMemoryTokenStore tokens;
    APIClient client{backend.origin(), tokens, notifications};
    std::shared_ptr<SeparateChannelBackend> interviewBackend =
        std::make_shared<SeparateChannelBackend>(client, channelServer.baseURL());
    FakeCapture systemAudio;
    FakeCapture microphone;
    // The recogniser each channel has now.
    std::array<std::weak_ptr<SpeechRecognitionProvider>, 2> recognizers;

    // The speech tokens: what they name, and the trouble scripted for the next ones.
    QString stallingEndpoint;
    int tokenFailures = 0;
    int stallingTokens = 0;
    // The session's routes.
    int completeFailures = 0;
    int postFailures = 0;
    QHash<QString, QString> delivered; // the last text a transcript post carried, by id

    int sessions = 0;
    int speechTokens = 0;
    InterviewViewModel vm{clock, settings, strings, services()};
};
