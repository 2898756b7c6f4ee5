#include "InterviewAdapters.h"

#include "APIClient.h"
#include "DeepgramProvider.h"
#include "ElevenLabsProvider.h"
#include "OpenAISTTProvider.h"
#include "TelemetryClient.h"
#include "TranscriptUploadService.h"

QString APIClientInterviewBackend::baseURL() const
{
    return m_client.baseURL();
}

std::optional<QString> APIClientInterviewBackend::accessToken() const
{
    return m_client.accessToken();
}

QCoro::Task<APIClient::SpeechTokenResponse> APIClientInterviewBackend::fetchSpeechToken()
{
    return m_client.fetchSpeechToken();
}

QCoro::Task<APIClient::AccountStatus> APIClientInterviewBackend::fetchAccountStatus()
{
    return m_client.fetchAccountStatus();
}

QCoro::Task<InterviewSession> APIClientInterviewBackend::createSession(QString languageInput,
                                                                       QString languageOutput)
{
    return m_client.createSession(std::move(languageInput), std::move(languageOutput));
}

QCoro::Task<> APIClientInterviewBackend::completeSession(QString sessionId,
                                                         qint64 sttAudioDurationMs)
{
    return m_client.completeSession(std::move(sessionId), sttAudioDurationMs);
}

QCoro::Task<> APIClientInterviewBackend::postTranscript(QString sessionId,
                                                        QList<QJsonObject> entries)
{
    return m_client.postTranscript(std::move(sessionId), std::move(entries));
}

QCoro::Task<APIClient::StreamAnswerResult>
APIClientInterviewBackend::streamAnswer(APIClient::AnswerRequest request)
{
    return m_client.streamAnswer(std::move(request));
}

QCoro::Task<> APIClientInterviewBackend::saveAnswerLog(QString logId, QString answer)
{
    return m_client.saveAnswerLog(std::move(logId), std::move(answer));
}

TranscriptUploadChannel::TranscriptUploadChannel(Clock& clock)
    : m_service(std::make_unique<TranscriptUploadService>(clock))
{
}

TranscriptUploadChannel::~TranscriptUploadChannel() = default;

QCoro::Task<> TranscriptUploadChannel::start(QString baseURL, QString token, QString sessionId)
{
    return m_service->start(std::move(baseURL), std::move(token), std::move(sessionId));
}

void TranscriptUploadChannel::send(TranscriptEntry entry)
{
    m_service->send(std::move(entry));
}

QCoro::Task<QList<TranscriptEntry>> TranscriptUploadChannel::stop()
{
    return m_service->stop();
}

TelemetryClientReporter::TelemetryClientReporter(TelemetryClient* client)
    : m_client(client)
{
}

void TelemetryClientReporter::firstInterviewStarted()
{
    if (m_client)
        m_client->firstInterviewStarted();
}

void TelemetryClientReporter::sttProviderChanged(const QString& provider)
{
    if (m_client)
        m_client->sttProviderChanged(provider);
}

void TelemetryClientReporter::audioCaptureFailed(const QString& errorCode, const QString& category)
{
    if (m_client)
        m_client->audioCaptureFailed(errorCode, category);
}

void TelemetryClientReporter::firstAnswerReceived(qint64 latencyMs)
{
    if (m_client)
        m_client->firstAnswerReceived(latencyMs);
}

void TelemetryClientReporter::sttFailed(const QString& provider, const QString& errorCode)
{
    if (m_client)
        m_client->sttFailed(provider, errorCode);
}

void TelemetryClientReporter::sessionCompleted(qint64 durationSeconds, qint64 answerCount)
{
    if (m_client)
        m_client->sessionCompleted(durationSeconds, answerCount);
}

RecognizerFactory vendorRecognizers(Clock& clock)
{
    return
        [&clock](SpeechProvider provider,
                 TranscriptEntry::Speaker speaker) -> std::shared_ptr<SpeechRecognitionProvider> {
            switch (provider) {
            case SpeechProvider::deepgram:
                return std::make_shared<DeepgramProvider>(speaker, clock);
            case SpeechProvider::openai:
                return std::make_shared<OpenAISTTProvider>(speaker, clock);
            case SpeechProvider::elevenlabs:
                break;
            }
            return std::make_shared<ElevenLabsProvider>(speaker, clock);
        };
}
