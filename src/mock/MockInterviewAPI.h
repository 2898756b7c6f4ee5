#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QNetworkRequest>
#include <QPointer>
#include <QString>

#include <functional>
#include <optional>
#include <stdexcept>

class APIClient;
class NotificationCenter;
class QNetworkAccessManager;

struct MockQuestion {
    QString id;
    QString text;
    QString category;
    static MockQuestion fromJson(const QJsonObject& object);
};

struct QuestionsResponse {
    QString sessionId;
    QList<MockQuestion> questions;
    static QuestionsResponse fromJson(const QJsonObject& object);
};

struct AvatarResponse {
    QString key;
    QString generatedAt;
    static AvatarResponse fromJson(const QJsonObject& object);
};

// Failures of the practice routes. Errors of the network stack itself (refused, timed out)
// are not wrapped: they reach the caller as the client's TransportError.
class MockInterviewError : public std::exception {
public:
    enum class Kind { http, decoding, transport, unauthenticated };

    static MockInterviewError http(int status, std::optional<QString> body);
    static MockInterviewError decoding(QString message);
    static MockInterviewError transport(QString message);
    static MockInterviewError unauthenticated();

    Kind kind() const { return m_kind; }
    int status() const { return m_status; }
    QString description() const { return m_description; }
    const char* what() const noexcept override { return m_what.c_str(); }

private:
    MockInterviewError(Kind kind, int status, QString description);

    Kind m_kind;
    int m_status;
    QString m_description;
    std::string m_what;
};

// The practice routes: questions, the interviewer's portrait and spoken questions. It takes the
// backend address and the access token from the API client but sends and judges its requests
// itself: a missing portrait is an answer here, not a failure, and nothing is retried.
class MockInterviewAPI : public QObject {
    Q_OBJECT

public:
    static constexpr int timeoutMs = 60'000;

    MockInterviewAPI(APIClient& apiClient, QNetworkAccessManager& urlSession,
                     NotificationCenter& notifications, QObject* parent = nullptr);

    QCoro::Task<QuestionsResponse> fetchQuestions(std::optional<QString> resumeId,
                                                  std::optional<QString> jobDescriptionId,
                                                  QString language, int count);
    QCoro::Task<std::optional<AvatarResponse>> fetchAvatar();
    QCoro::Task<AvatarResponse> generateAvatar();
    QCoro::Task<std::optional<QByteArray>> fetchAvatarImage();
    QCoro::Task<QByteArray> synthesizeSpeech(QString text);

    // The questions body: optional ids are left out rather than sent as null.
    static QJsonObject questionsBody(const std::optional<QString>& resumeId,
                                     const std::optional<QString>& jobDescriptionId,
                                     const QString& language, int count);

private:
    struct Response {
        int status;
        QByteArray body;
    };

    QNetworkRequest makeRequest(const QString& path) const;
    QCoro::Task<Response> send(QNetworkRequest request, QByteArray method, QByteArray body);
    QCoro::Task<QByteArray> postJSON(QString path, QJsonObject body);
    // GET where `absent` statuses mean "nothing there yet".
    QCoro::Task<std::optional<QByteArray>> getOptional(QString path, QList<int> absent);

    QPointer<APIClient> m_apiClient;
    QPointer<QNetworkAccessManager> m_urlSession;
    NotificationCenter& m_notifications;
};

// Runs the portrait sequence: fetch, generate when there is none (or when `regenerate`), then
// the image's bytes. Any failure gives nothing: the portrait is decoration. `generated` is told
// when a new portrait was made.
QCoro::Task<std::optional<QByteArray>>
loadAvatarImage(QPointer<MockInterviewAPI> api, bool regenerate,
                std::function<void(bool firstTime)> generated);
