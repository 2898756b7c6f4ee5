#pragma once

#include "InterviewCollaborators.h"

#include <QPointer>

class APIClient;
class AudioCaptureService;
class Clock;
class MicrophoneService;
class TelemetryClient;
class TranscriptUploadService;

// The program's own services behind the interview's small interfaces.

template<typename Service>
class CaptureServiceAdapter final : public AudioCapture {
public:
    explicit CaptureServiceAdapter(Service& service)
        : m_service(service)
    {
    }
    std::shared_ptr<AudioStream> audioStream() override { return m_service.audioStream(); }
    QCoro::Task<> start() override { return m_service.start(); }
    QCoro::Task<> stop() override { return m_service.stop(); }

private:
    Service& m_service;
};

using SystemAudioCapture = CaptureServiceAdapter<AudioCaptureService>;
using MicrophoneCapture = CaptureServiceAdapter<MicrophoneService>;

// `client` must outlive the adapter.
class APIClientInterviewBackend final : public InterviewBackend {
public:
    explicit APIClientInterviewBackend(APIClient& client)
        : m_client(client)
    {
    }
    QString baseURL() const override;
    std::optional<QString> accessToken() const override;
    QCoro::Task<APIClient::SpeechTokenResponse> fetchSpeechToken() override;
    QCoro::Task<APIClient::AccountStatus> fetchAccountStatus() override;
    QCoro::Task<InterviewSession> createSession(QString languageInput,
                                                QString languageOutput) override;
    QCoro::Task<> completeSession(QString sessionId, qint64 sttAudioDurationMs) override;
    QCoro::Task<> postTranscript(QString sessionId, QList<QJsonObject> entries) override;
    QCoro::Task<APIClient::StreamAnswerResult>
    streamAnswer(APIClient::AnswerRequest request) override;
    QCoro::Task<> saveAnswerLog(QString logId, QString answer) override;

private:
    APIClient& m_client;
};

// One live transcript channel per interview.
class TranscriptUploadChannel final : public TranscriptChannel {
public:
    explicit TranscriptUploadChannel(Clock& clock);
    ~TranscriptUploadChannel() override;
    QCoro::Task<> start(QString baseURL, QString token, QString sessionId) override;
    void send(TranscriptEntry entry) override;
    QCoro::Task<QList<TranscriptEntry>> stop() override;
    TranscriptUploadService& service() { return *m_service; }

private:
    std::unique_ptr<TranscriptUploadService> m_service;
};

// Gone with the client, it reports nothing.
class TelemetryClientReporter final : public InterviewTelemetry {
public:
    explicit TelemetryClientReporter(TelemetryClient* client);
    void firstInterviewStarted() override;
    void sttProviderChanged(const QString& provider) override;
    void audioCaptureFailed(const QString& errorCode, const QString& category) override;
    void firstAnswerReceived(qint64 latencyMs) override;
    void sttFailed(const QString& provider, const QString& errorCode) override;
    void sessionCompleted(qint64 durationSeconds, qint64 answerCount) override;

private:
    QPointer<TelemetryClient> m_client;
};

// The vendors' recognisers at their build origins; a speech token may name another origin.
RecognizerFactory vendorRecognizers(Clock& clock);
