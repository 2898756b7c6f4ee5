#pragma once

#include "APIError.h"
#include "AnswerStream.h"
#include "Json.h"
#include "Records.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

#include "TaskHandle.h"

class AuthTokenStore;
class NotificationCenter;
class PdfTextExtractor;
class QNetworkAccessManager;
class QNetworkRequest;

struct EmptyResponse {};

using RequestHeaders = QList<std::pair<QByteArray, QByteArray>>;
inline RequestHeaders jsonHeaders()
{
    return {{QByteArray("Content-Type"), QByteArray("application/json")}};
}

// The one gateway to the backend: builds requests from paths, attaches the bearer token,
// recovers from an expired token with one shared refresh and one retry, and classifies
// failures. Runs on the main thread; other calls may run while one is suspended.
class APIClient : public QObject {
    Q_OBJECT

public:
    static constexpr int timeoutMs = 60'000;

    struct Request {
        QByteArray method;
        QString path;
        QByteArray body;
        RequestHeaders headers;
    };

    struct RefreshResponse {
        QString accessToken;
        QString refreshToken;
        static RefreshResponse fromJson(const QJsonObject& object);
    };
    struct UserResponse {
        QString id;
        QString email;
        std::optional<QString> displayName;
        static UserResponse fromJson(const QJsonObject& object);
    };
    struct AuthResponse {
        QString accessToken;
        QString refreshToken;
        UserResponse user;
        static AuthResponse fromJson(const QJsonObject& object);
    };
    struct SpeechTokenResponse {
        QString provider;
        QString token;
        std::optional<QString> sttModel;
        // A vendor origin for this connection (self-hosted or regional); replaces the default.
        std::optional<QString> endpoint;
        static SpeechTokenResponse fromJson(const QJsonObject& object);
    };
    struct AccountStatus {
        std::optional<QString> speechProvider;
        static AccountStatus fromJson(const QJsonObject& object);
    };
    struct ResumeResponse {
        QString id;
        QString filename;
        QString extractedText;
        QString createdAt;
        static ResumeResponse fromJson(const QJsonObject& object);
    };
    struct JobDescriptionResponse {
        QString id;
        QString title;
        QString company;
        QString content;
        QString createdAt;
        static JobDescriptionResponse fromJson(const QJsonObject& object);
    };
    struct ResumesWrapper {
        QList<ResumeResponse> resumes;
        static ResumesWrapper fromJson(const QJsonObject& object);
    };
    struct JobDescriptionsWrapper {
        QList<JobDescriptionResponse> jobDescriptions;
        static JobDescriptionsWrapper fromJson(const QJsonObject& object);
    };

    struct AnswerRequest {
        QString question;
        QList<QJsonObject> context; // context forms of transcript entries
        std::optional<QString> sessionId;
        std::optional<QString> language;
        std::optional<QString> resumeId;
        std::optional<QString> jobDescriptionId;
    };
    struct StreamAnswerResult {
        std::optional<QString> logId;
        std::shared_ptr<AnswerStream> stream;
    };

    // `baseURL`: scheme and host, no trailing slash. Without `network` the client makes its own.
    APIClient(QString baseURL, AuthTokenStore& tokens, NotificationCenter& notifications,
              QNetworkAccessManager* network = nullptr, QObject* parent = nullptr);
    ~APIClient() override;

    QString baseURL() const { return m_baseURL; }
    std::optional<QString> accessToken() const { return m_accessToken; }
    void setAccessToken(std::optional<QString> token) { m_accessToken = std::move(token); }
    bool isRefreshing() const { return m_refreshTask != nullptr; }
    void setPdfTextExtractor(PdfTextExtractor* extractor) { m_pdfText = extractor; }

    template<typename T>
    QCoro::Task<T> get(QString path)
    {
        return perform<T>(Request{QByteArray("GET"), std::move(path), {}, {}}, true);
    }
    QCoro::Task<> post(QString path, QByteArray body);
    QCoro::Task<> put(QString path, QByteArray body);
    QCoro::Task<> patch(QString path, QMap<QString, QString> fields);
    QCoro::Task<> deleteResource(QString path);

    template<typename T>
    QCoro::Task<T> perform(Request request, bool allowRefresh);

    QCoro::Task<RefreshResponse> refreshTokens(QString refreshToken);
    QCoro::Task<AuthResponse> exchangeCode(QString code);

    // The interview's endpoints.
    QCoro::Task<StreamAnswerResult> streamAnswer(AnswerRequest request);
    QCoro::Task<> saveAnswerLog(QString logId, QString answer);
    QCoro::Task<SpeechTokenResponse> fetchSpeechToken(bool isRetry = false);
    QCoro::Task<InterviewSession> createSession(QString languageInput, QString languageOutput);
    QCoro::Task<> postTranscript(QString sessionId, QList<QJsonObject> entries);
    QCoro::Task<> completeSession(QString sessionId, qint64 sttAudioDurationMs);
    QCoro::Task<AccountStatus> fetchAccountStatus();

    // Resumes and job descriptions.
    QCoro::Task<ResumesWrapper> fetchResumes();
    QCoro::Task<ResumeResponse> uploadResume(QString filePath);
    QCoro::Task<> deleteResume(QString id);
    QCoro::Task<JobDescriptionsWrapper> fetchJobDescriptions();
    QCoro::Task<JobDescriptionResponse> createJobDescription(QString title, QString content,
                                                             std::optional<QString> company);
    QCoro::Task<> deleteJobDescription(QString id);

    static QString contentTypeForExtension(const QString& lowerCaseExtension);
    static QByteArray multipartBody(const QString& boundary, const QString& filename,
                                    const QString& contentType, const QByteArray& fileBytes,
                                    const std::optional<QString>& extractedText);

private:
    struct RawResponse {
        std::optional<int> status; // nothing: the answer was not HTTP
        QByteArray body;
    };
    struct RefreshFlight;

    QNetworkRequest networkRequest(const Request& request, const std::optional<QString>& token) const;
    QCoro::Task<RawResponse> send(Request request, std::optional<QString> token);
    QCoro::Task<> performWith(Request request, bool allowRefresh,
                              std::function<void(const QByteArray&)> decode);
    QCoro::Task<QString> renewAccessToken();
    void postRequestFailed(const QString& path, int status);
    static QCoro::Task<> runRefresh(QPointer<QNetworkAccessManager> network, QNetworkRequest request,
                                    QByteArray body, std::shared_ptr<RefreshFlight> flight);

    template<typename T>
    static T decodeBody(const QByteArray& body);

    QString m_baseURL;
    AuthTokenStore& m_tokens;
    NotificationCenter& m_notifications;
    QPointer<QNetworkAccessManager> m_network;
    std::optional<QString> m_accessToken;
    std::shared_ptr<RefreshFlight> m_refreshTask;
    PdfTextExtractor* m_pdfText = nullptr;
};

// A body with no bytes, or any valid JSON, which is then discarded.
void validateJsonBody(const QByteArray& body);

template<typename T>
T APIClient::decodeBody(const QByteArray& body)
{
    if constexpr (std::is_same_v<T, EmptyResponse>) {
        if (!body.isEmpty())
            validateJsonBody(body);
        return {};
    } else {
        return T::fromJson(Json::parseObject(body));
    }
}

template<typename T>
QCoro::Task<T> APIClient::perform(Request request, bool allowRefresh)
{
    std::optional<T> result;
    std::function<void(const QByteArray&)> decode = [&result](const QByteArray& body) {
        result = decodeBody<T>(body);
    };
    co_await performWith(std::move(request), allowRefresh, std::move(decode));
    co_return std::move(*result);
}
