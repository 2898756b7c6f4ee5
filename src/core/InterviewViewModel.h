#pragma once

#include "InterviewCollaborators.h"
#include "InterviewSupport.h"
#include "Records.h"
#include "TaskHandle.h"
#include "TranscriptManager.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantList>

#include <array>
#include <chrono>
#include <memory>
#include <optional>

class AppStrings;
class AudioRights;
class Clock;
class UserSettings;

// The centre of the interview: starts and stops the live pipeline, turns interviewer speech
// into answers, keeps the speech channels alive and delivers the transcript at the end.
// Everything here runs on the main thread; the flags isStartingInterview, isStoppingInterview
// and hasActivePipeline stand in for locks across suspensions. Its work is spread over
// InterviewPipeline.cpp, InterviewAnswers.cpp, InterviewRecovery.cpp and
// InterviewFinalisation.cpp.
class InterviewViewModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY isRecordingChanged)
    Q_PROPERTY(bool isMockMode READ isMockMode NOTIFY isMockModeChanged)
    Q_PROPERTY(bool isLoggedIn READ isLoggedIn WRITE setLoggedIn NOTIFY isLoggedInChanged)
    Q_PROPERTY(PipelineState pipelineState READ pipelineState NOTIFY pipelineStateChanged)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY statusMessageChanged)
    Q_PROPERTY(QString error READ errorText NOTIFY errorChanged)
    Q_PROPERTY(QString lastNotice READ lastNoticeText NOTIFY lastNoticeChanged)
    Q_PROPERTY(QString lastRecoverableError READ lastRecoverableErrorText NOTIFY
                   lastRecoverableErrorChanged)
    Q_PROPERTY(QDateTime lastRecoverableErrorAt READ lastRecoverableErrorAtDate NOTIFY
                   lastRecoverableErrorChanged)
    Q_PROPERTY(QString speechProvider READ speechProviderText NOTIFY speechProviderChanged)
    Q_PROPERTY(QString currentSessionId READ currentSessionId NOTIFY currentSessionChanged)
    Q_PROPERTY(bool isGeneratingAnswer READ isGeneratingAnswer NOTIFY isGeneratingAnswerChanged)
    Q_PROPERTY(QVariantList aiAnswerHistory READ aiAnswerHistoryList NOTIFY aiAnswerHistoryChanged)
    Q_PROPERTY(int selectedAnswerIndex READ selectedAnswerRow NOTIFY selectedAnswerIndexChanged)
    Q_PROPERTY(int selectedTranscriptIndex READ selectedTranscriptRow NOTIFY
                   selectedTranscriptIndexChanged)
    Q_PROPERTY(QString currentAnswerText READ currentAnswerText NOTIFY answerViewChanged)
    Q_PROPERTY(
        bool isSelectedAnswerStreaming READ isSelectedAnswerStreaming NOTIFY answerViewChanged)
    Q_PROPERTY(bool canRequestAnswer READ canRequestAnswer NOTIFY canRequestAnswerChanged)
    Q_PROPERTY(QVariantList pastSessions READ pastSessionsList NOTIFY pastSessionsChanged)
    Q_PROPERTY(bool hasPendingTranscriptUpload READ hasPendingTranscriptUpload NOTIFY
                   pendingTranscriptUploadChanged)

public:
    enum class PipelineState { idle, recording, reconnecting, stopping, error };
    Q_ENUM(PipelineState)
    using Speaker = TranscriptEntry::Speaker;

    static constexpr std::chrono::milliseconds autoTriggerDelay{4000};
    static constexpr std::chrono::milliseconds answerRetryDelay{700};
    static constexpr std::chrono::seconds answerStreamLimit{90};
    static constexpr int answerContextCount = 10;
    static constexpr int restartCountLimit = 11;
    static constexpr double initialBackoffSeconds = 0.5;
    static constexpr double maxBackoffSeconds = 15;
    static constexpr double limitRetrySeconds = 30;
    static constexpr std::chrono::milliseconds tokenRetryDelay{350};
    static constexpr int reasonTelemetryLength = 64;
    static constexpr std::chrono::milliseconds transcriptRetryDelay{500};
    // A cancelled stream reader or a hanging capture never holds a stop for longer.
    static constexpr std::chrono::seconds taskWaitCap{1};
    static constexpr std::chrono::seconds captureStopCap{2};
    // While no recogniser runs on a channel its stream keeps this much of the newest audio
    // (ten seconds at the nominal rate), so an hour-long outage neither fills the memory nor
    // reaches a returning recogniser as minutes of stale audio.
    static constexpr qint64 nominalSampleRate = 16000;
    static constexpr std::size_t idleBacklogFrames = 10 * nominalSampleRate;
    static inline const QString reconnectionFailedNotice =
        QStringLiteral("Reconnection failed. RavletAI will keep trying.");

    // The fixed collaborators of every interview.
    struct Services {
        AudioCapture* audioCapture = nullptr; // system audio, the interviewer's channel
        AudioCapture* microphone = nullptr;   // the user's channel
        AudioRights* rights = nullptr; // stand-ins for the screen-capture and microphone rights
        RecognizerFactory makeRecognizer;
        TranscriptChannelFactory makeTranscriptChannel;
    };

    // `clock`, `settings`, `strings` and the services must outlive the model.
    InterviewViewModel(Clock& clock, UserSettings& settings, AppStrings& strings, Services services,
                       QObject* parent = nullptr);
    ~InterviewViewModel() override;

    // Handed over after sign-in and at launch; either may be absent.
    void setBackend(std::shared_ptr<InterviewBackend> backend);
    void setTelemetry(std::shared_ptr<InterviewTelemetry> telemetry);
    void setLoggedIn(bool loggedIn);
    // The signed-in user's address, handed over by the shell after sign-in.
    void setUserEmail(std::optional<QString> email) { m_userEmail = std::move(email); }
    const std::optional<QString>& userEmail() const { return m_userEmail; }

    // The operations of the screens, the keys and the mock driver.
    QCoro::Task<> startInterview();
    QCoro::Task<> stopInterview();
    // The same two for the windows, which cannot await: each runs on its own to its end.
    Q_INVOKABLE void requestStartInterview();
    Q_INVOKABLE void requestStopInterview();
    QCoro::Task<> startMockInterview(QString sessionId);
    void injectMockQuestion(const QString& text);
    Q_INVOKABLE void triggerAIAnswer();
    Q_INVOKABLE void selectNextAnswer();
    Q_INVOKABLE void selectPreviousAnswer();
    Q_INVOKABLE void selectPreviousTranscript();
    Q_INVOKABLE void selectNextTranscript();

    bool canRequestAnswer() const;
    QString currentAnswerText() const;
    bool isSelectedAnswerStreaming() const;

    // The recovery handlers; they return once the restart has been tried.
    QCoro::Task<> handleInterviewerRecovery(QString reason, bool countsTowardLimit);
    QCoro::Task<> handleUserRecovery(QString reason, bool countsTowardLimit);

    // Fields.
    bool isRecording() const { return m_isRecording; }
    bool isMockMode() const { return m_isMockMode; }
    bool isLoggedIn() const { return m_isLoggedIn; }
    PipelineState pipelineState() const { return m_pipelineState; }
    QString statusMessage() const { return m_statusMessage; }
    std::optional<QString> error() const { return m_error; }
    std::optional<QString> lastNotice() const { return m_lastNotice; }
    std::optional<QString> lastRecoverableError() const { return m_lastRecoverableError; }
    std::optional<qint64> lastRecoverableErrorAtMs() const { return m_lastRecoverableErrorAtMs; }
    SpeechProvider speechProvider() const { return m_speechProvider; }
    const std::optional<InterviewSession>& currentSession() const { return m_currentSession; }
    bool currentSessionUsesBackend() const { return m_currentSessionUsesBackend; }
    TranscriptManager& transcriptManager() { return m_transcript; }
    const TranscriptManager& transcriptManager() const { return m_transcript; }
    const QList<AIAnswerEntry>& aiAnswerHistory() const { return m_aiAnswerHistory; }
    std::optional<int> selectedAnswerIndex() const { return m_selectedAnswerIndex; }
    std::optional<int> selectedTranscriptIndex() const { return m_selectedTranscriptIndex; }
    bool isGeneratingAnswer() const { return m_isGeneratingAnswer; }
    const std::optional<PendingTranscriptUpload>& pendingTranscriptUpload() const
    {
        return m_pendingTranscriptUpload;
    }
    const QList<InterviewSession>& pastSessions() const { return m_pastSessions; }
    bool isStartingInterview() const { return m_isStartingInterview; }
    bool isStoppingInterview() const { return m_isStoppingInterview; }
    bool hasActivePipeline() const { return m_hasActivePipeline; }
    std::optional<qint64> sttStartTimeMs() const { return m_sttStartTimeMs; }

    // The per-channel fields, interviewer and user.
    SpeechRecognitionProvider* recognizer(Speaker speaker) const
    {
        return channel(speaker).recognizer.get();
    }
    std::shared_ptr<AudioStream> audioStream(Speaker speaker) const
    {
        return channel(speaker).audioStream;
    }
    bool isRestarting(Speaker speaker) const { return channel(speaker).isRestarting; }
    int restartCount(Speaker speaker) const { return channel(speaker).restartCount; }
    double reconnectBackoffSeconds(Speaker speaker) const
    {
        return channel(speaker).backoffSeconds;
    }
    bool hasScheduledReconnect(Speaker speaker) const
    {
        return !channel(speaker).reconnectTask.isFinished();
    }
    TranscriptChannel* transcriptUploadService() const { return m_transcriptUploadService.get(); }
    // Tasks that have not yet finished: the stream readers, the answer and the scheduled
    // reconnects.
    int runningTaskCount() const;

Q_SIGNALS:
    void isRecordingChanged();
    void isMockModeChanged();
    void isLoggedInChanged();
    void pipelineStateChanged();
    void statusMessageChanged();
    void errorChanged();
    void lastNoticeChanged();
    void lastRecoverableErrorChanged();
    void speechProviderChanged();
    void currentSessionChanged();
    void isGeneratingAnswerChanged();
    void aiAnswerHistoryChanged();
    void selectedAnswerIndexChanged();
    void selectedTranscriptIndexChanged();
    void answerViewChanged();
    void canRequestAnswerChanged();
    void pastSessionsChanged();
    void pendingTranscriptUploadChanged();

private:
    struct Channel {
        std::shared_ptr<SpeechRecognitionProvider> recognizer;
        std::shared_ptr<AudioStream> audioStream;
        bool isRestarting = false;
        int restartCount = 0;
        double backoffSeconds = initialBackoffSeconds;
        TaskHandle reconnectTask;
    };
    // Holds isStartingInterview up while a start runs: every exit of the start clears it.
    class StartingScope {
    public:
        explicit StartingScope(InterviewViewModel* model)
            : m_model(model)
        {
            model->m_isStartingInterview = true;
        }
        ~StartingScope()
        {
            if (m_model)
                m_model->m_isStartingInterview = false;
        }
        StartingScope(const StartingScope&) = delete;
        StartingScope& operator=(const StartingScope&) = delete;

    private:
        QPointer<InterviewViewModel> m_model;
    };

    Channel& channel(Speaker speaker) { return m_channels[static_cast<std::size_t>(speaker)]; }
    const Channel& channel(Speaker speaker) const
    {
        return m_channels[static_cast<std::size_t>(speaker)];
    }

    // Pipeline.
    QCoro::Task<> runStart();
    QCoro::Task<> runMockStart(QString sessionId);
    // What both starts do first: clear the last errors, show `statusKey`, and check that the
    // user is signed in with a token; false after showing why not.
    bool beginStart(const QString& statusKey);
    QCoro::Task<std::optional<QString>> prepareSession(quint64 stopCount);
    InterviewSession makeLocalSession(QString id) const;
    QCoro::Task<> handleStartFailure(std::exception_ptr error, quint64 stopCount);
    QCoro::Task<> tearDownPipeline();
    // The steps of the live start, in its order.
    void resetForLiveInterview();
    // System audio and the interviewer's recogniser; the failure that ends the start, if any.
    QCoro::Task<Attempt<void>> startInterviewerChannel(APIClient::SpeechTokenResponse speechToken,
                                                       quint64 stopCount);
    // The microphone's channel, left out when refused or failing.
    QCoro::Task<> startOptionalUserChannel(quint64 stopCount);
    void beginRecording();
    // Bounds a channel's waiting audio while no recogniser reads it, and lifts the bound again.
    void setRecognizerRunning(Speaker speaker, bool running);
    void reportDroppedAudio(Speaker speaker);
    // The user's channel: microphone, recogniser, token; throws what fails. `stopCount` is the
    // start's view of the stops.
    QCoro::Task<> startUserChannel(quint64 stopCount);
    QCoro::Task<> connectTranscriptChannel(QString logTag, quint64 stopCount);
    QCoro::Task<>
    consumeSegments(std::shared_ptr<SpeechRecognitionProvider::SegmentStream> segments,
                    Speaker speaker, CancellationToken token);
    QCoro::Task<> consumeRecovery(std::shared_ptr<SpeechRecognitionProvider::RecoveryStream> events,
                                  Speaker speaker, CancellationToken token);
    void startChannelTasks(const std::shared_ptr<SpeechRecognitionProvider>& recognizer,
                           Speaker speaker);
    // A stop has run since the start that counted `stopCount` began.
    bool overtakenByStop(quint64 stopCount) const { return m_stopCount != stopCount; }
    void applyProviderText(const QString& text, bool report);
    void setPipelineState(PipelineState state, const QString& messageKey);
    void setNotice(std::optional<QString> text);
    void setError(std::optional<QString> text);
    void setRecoverableError(std::optional<QString> text);
    void setRecording(bool recording);
    void setCurrentSession(std::optional<InterviewSession> session);
    void setUsesBackend(bool usesBackend);
    void setMockMode(bool mockMode);
    void clearErrors();

    // Answers.
    void scheduleAnswer(bool immediate, std::optional<QString> question);
    QCoro::Task<> runAnswerTask(bool immediate, std::optional<QString> question,
                                CancellationToken token);
    QCoro::Task<> generateAnswer(std::optional<QString> question, CancellationToken token);
    AIAnswerEntry* answerById(const QUuid& id);
    void answerFailed(const std::exception_ptr& error);
    void setGeneratingAnswer(bool generating);
    void setSelectedAnswerIndex(std::optional<int> index);
    void setSelectedTranscriptIndex(std::optional<int> index);
    void clearAnswers();
    QList<TranscriptEntry> finalDisplayedRows() const;

    // Recovery.
    // `connection` is the recogniser connection the event came from, 0 for none in particular.
    QCoro::Task<> handleRecovery(Speaker speaker, QString reason, bool countsTowardLimit,
                                 CancellationToken token, quint64 connection = 0);
    void scheduleReconnect(Speaker speaker, double delaySeconds);
    QCoro::Task<> runScheduledReconnect(Speaker speaker, double delaySeconds,
                                        CancellationToken token);

    // Finalisation.
    QCoro::Task<> finishSession();
    QCoro::Task<> retryPendingUpload(quint64 stopCount);
    // One post of the transcript, with one retry after a retryable failure; throws the last error.
    QCoro::Task<> deliverTranscript(std::shared_ptr<InterviewBackend> backend, QString sessionId,
                                    QList<QJsonObject> entries);
    void setPendingTranscriptUpload(std::optional<PendingTranscriptUpload> upload);

    // The property forms of the optional fields.
    QString errorText() const { return m_error.value_or(QString()); }
    QString lastNoticeText() const { return m_lastNotice.value_or(QString()); }
    QString lastRecoverableErrorText() const { return m_lastRecoverableError.value_or(QString()); }
    QDateTime lastRecoverableErrorAtDate() const;
    QString speechProviderText() const { return toText(m_speechProvider); }
    QString currentSessionId() const { return m_currentSession ? m_currentSession->id : QString(); }
    QVariantList aiAnswerHistoryList() const;
    int selectedAnswerRow() const { return m_selectedAnswerIndex.value_or(-1); }
    int selectedTranscriptRow() const { return m_selectedTranscriptIndex.value_or(-1); }
    QVariantList pastSessionsList() const;
    bool hasPendingTranscriptUpload() const { return m_pendingTranscriptUpload.has_value(); }

    Clock& m_clock;
    UserSettings& m_settings;
    AppStrings& m_strings;
    Services m_services;
    std::shared_ptr<InterviewBackend> m_backend;
    std::shared_ptr<InterviewTelemetry> m_telemetry;
    TranscriptManager m_transcript;

    bool m_isRecording = false;
    bool m_isMockMode = false;
    bool m_isLoggedIn = false;
    std::optional<QString> m_userEmail;
    PipelineState m_pipelineState = PipelineState::idle;
    QString m_statusMessage;
    std::optional<QString> m_error;
    std::optional<QString> m_lastNotice;
    std::optional<QString> m_lastRecoverableError;
    std::optional<qint64> m_lastRecoverableErrorAtMs;
    SpeechProvider m_speechProvider = SpeechProvider::elevenlabs;
    std::optional<InterviewSession> m_currentSession;
    bool m_currentSessionUsesBackend = false;
    bool m_isStartingInterview = false;
    bool m_isStoppingInterview = false;
    bool m_hasActivePipeline = false;
    std::optional<qint64> m_sttStartTimeMs;
    // Counts the stops, so that a start that resumes after one knows to give up.
    quint64 m_stopCount = 0;
    // Cancelled when the interview begins to record; recovery events of the start wait for it.
    CancellationToken m_recordingBegan;

    std::array<Channel, 2> m_channels;
    std::shared_ptr<TranscriptChannel> m_transcriptUploadService;
    QList<TaskHandle> m_recognitionTasks;

    QList<AIAnswerEntry> m_aiAnswerHistory;
    std::optional<int> m_selectedAnswerIndex;
    std::optional<int> m_selectedTranscriptIndex;
    bool m_isGeneratingAnswer = false;
    TaskHandle m_aiAnswerTask;

    std::optional<PendingTranscriptUpload> m_pendingTranscriptUpload;
    QList<InterviewSession> m_pastSessions;
};
