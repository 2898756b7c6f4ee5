#pragma once

// Pieces shared by the interview tests that run over real loopback sockets.

#include "APIClient.h"
#include "InterviewAdapters.h"
#include "InterviewCollaborators.h"

#include <memory>
#include <vector>

// A capture channel fed by the test: each start makes a fresh stream, as the real ones do.
class PcmCapture final : public AudioCapture {
public:
    std::shared_ptr<AudioStream> audioStream() override
    {
        if (!m_stream)
            m_stream = std::make_shared<AudioStream>();
        return m_stream;
    }
    QCoro::Task<> start() override
    {
        m_stream = std::make_shared<AudioStream>();
        isRunning = true;
        co_return;
    }
    QCoro::Task<> stop() override
    {
        isRunning = false;
        if (m_stream)
            m_stream->finish();
        co_return;
    }
    void play(std::vector<float> samples) { audioStream()->push(PcmBuffer{std::move(samples)}); }

    bool isRunning = false;

private:
    std::shared_ptr<AudioStream> m_stream;
};

// The real backend client, except that the transcript channel is on a server of its own: the
// two loopback fakes cannot share a port, and the channel's address is made from the base URL.
class SeparateChannelBackend final : public InterviewBackend {
public:
    SeparateChannelBackend(APIClient& client, QString channelBaseURL = {})
        : m_api(client), m_channelBaseURL(std::move(channelBaseURL))
    {
    }
    void setChannelBaseURL(QString url) { m_channelBaseURL = std::move(url); }

    QString baseURL() const override { return m_channelBaseURL; }
    std::optional<QString> accessToken() const override { return m_api.accessToken(); }
    QCoro::Task<APIClient::SpeechTokenResponse> fetchSpeechToken() override { return m_api.fetchSpeechToken(); }
    QCoro::Task<APIClient::AccountStatus> fetchAccountStatus() override { return m_api.fetchAccountStatus(); }
    QCoro::Task<InterviewSession> createSession(QString languageInput, QString languageOutput) override
    {
        return m_api.createSession(std::move(languageInput), std::move(languageOutput));
    }
    QCoro::Task<> completeSession(QString sessionId, qint64 sttAudioDurationMs) override
    {
        return m_api.completeSession(std::move(sessionId), sttAudioDurationMs);
    }
    QCoro::Task<> postTranscript(QString sessionId, QList<QJsonObject> entries) override
    {
        return m_api.postTranscript(std::move(sessionId), std::move(entries));
    }
    QCoro::Task<APIClient::StreamAnswerResult> streamAnswer(APIClient::AnswerRequest request) override
    {
        return m_api.streamAnswer(std::move(request));
    }
    QCoro::Task<> saveAnswerLog(QString logId, QString answer) override
    {
        return m_api.saveAnswerLog(std::move(logId), std::move(answer));
    }

private:
    APIClientInterviewBackend m_api;
    QString m_channelBaseURL;
};
