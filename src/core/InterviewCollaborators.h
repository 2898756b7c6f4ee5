#pragma once

#include "APIClient.h"
#include "AudioFraming.h"
#include "Records.h"
#include "SpeechRecognitionProvider.h"
#include "UserSettings.h"

#include <QCoroTask>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <exception>
#include <functional>
#include <memory>
#include <optional>

// What the interview pipeline needs from the rest of the program, as small interfaces so that
// it runs in tests against fakes on the manual clock. InterviewAdapters.h puts the real
// services behind them.

// One capture channel: system audio or the microphone.
class AudioCapture {
public:
    virtual ~AudioCapture() = default;
    // The stream the next start feeds; a new one after each start.
    virtual std::shared_ptr<AudioStream> audioStream() = 0;
    virtual QCoro::Task<> start() = 0;
    virtual QCoro::Task<> stop() = 0;
};

// The backend operations of an interview.
class InterviewBackend {
public:
    virtual ~InterviewBackend() = default;
    virtual QString baseURL() const = 0;
    virtual std::optional<QString> accessToken() const = 0;
    virtual QCoro::Task<APIClient::SpeechTokenResponse> fetchSpeechToken() = 0;
    virtual QCoro::Task<APIClient::AccountStatus> fetchAccountStatus() = 0;
    virtual QCoro::Task<InterviewSession> createSession(QString languageInput,
                                                        QString languageOutput) = 0;
    virtual QCoro::Task<> completeSession(QString sessionId, qint64 sttAudioDurationMs) = 0;
    virtual QCoro::Task<> postTranscript(QString sessionId, QList<QJsonObject> entries) = 0;
    virtual QCoro::Task<APIClient::StreamAnswerResult>
    streamAnswer(APIClient::AnswerRequest request) = 0;
    virtual QCoro::Task<> saveAnswerLog(QString logId, QString answer) = 0;
};

// The live transcript channel of one interview.
class TranscriptChannel {
public:
    virtual ~TranscriptChannel() = default;
    virtual QCoro::Task<> start(QString baseURL, QString token, QString sessionId) = 0;
    // Hands a line over without waiting; the channel keeps the order of the calls.
    virtual void send(TranscriptEntry entry) = 0;
    // Every line the server did not acknowledge.
    virtual QCoro::Task<QList<TranscriptEntry>> stop() = 0;
};

// The events the interview reports. Never shows or raises anything.
class InterviewTelemetry {
public:
    virtual ~InterviewTelemetry() = default;
    virtual void firstInterviewStarted() = 0;
    virtual void sttProviderChanged(const QString& provider) = 0;
    virtual void audioCaptureFailed(const QString& errorCode, const QString& category) = 0;
    virtual void firstAnswerReceived(qint64 latencyMs) = 0;
    virtual void sttFailed(const QString& provider, const QString& errorCode) = 0;
    virtual void sessionCompleted(qint64 durationSeconds, qint64 answerCount) = 0;
};

using RecognizerFactory = std::function<std::shared_ptr<SpeechRecognitionProvider>(
    SpeechProvider provider, TranscriptEntry::Speaker speaker)>;
using TranscriptChannelFactory = std::function<std::shared_ptr<TranscriptChannel>()>;

// Whether a failed request is worth one more try: a lost, refused, timed-out or unresolved
// connection, or a server error of 500 and above. Never a cancellation, a 4xx or an
// unauthorised answer.
bool isRetryableNetworkError(const std::exception_ptr& error);
// The text of a failure as it is shown to the user.
QString errorDescription(const std::exception_ptr& error);
// The failure's kind and number, "domain#code", for telemetry.
QString errorCode(const std::exception_ptr& error);
