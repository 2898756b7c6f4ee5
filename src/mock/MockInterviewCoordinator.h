#pragma once

#include "CancellationToken.h"
#include "MockInterviewAPI.h"
#include "TaskHandle.h"

#include <QCoroTask>
#include <QImage>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>
#include <optional>

class Clock;
class MockInterviewPipeline;
class TTSPlayer;
class TelemetryClient;

// Plays the interviewer of a practice session: fetches the questions, speaks them one at a time
// and waits for the user to move on. It captures no audio itself: the interview pipeline runs
// beside it in mock mode, and each question enters the transcript as the interviewer's line.
class MockInterviewCoordinator : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString phase READ phase NOTIFY stateChanged)
    Q_PROPERTY(int currentIndex READ currentIndex NOTIFY currentIndexChanged)
    Q_PROPERTY(int questionCount READ questionCount NOTIFY questionsChanged)
    Q_PROPERTY(QString abortReason READ abortReason NOTIFY stateChanged)
    Q_PROPERTY(QImage avatarImage READ avatarImage NOTIFY avatarImageChanged)

public:
    struct State {
        enum class Kind {
            playingQuestion,
            waitingForAnswer,
            aborted,
            idle,
            fetchingAvatar,
            fetchingQuestions,
            advancing,
            finished
        };
        Kind kind = Kind::idle;
        int index = 0;  // playingQuestion and waitingForAnswer
        QString reason; // aborted
        friend bool operator==(const State&, const State&) = default;
    };

    static constexpr int questionCountPerSession = 8;
    // How long the first question waits for the pipeline to record, and how often it looks.
    static constexpr std::chrono::milliseconds pipelineStartDeadline{5000};
    static constexpr std::chrono::milliseconds pipelinePollInterval{100};

    MockInterviewCoordinator(MockInterviewAPI& api, TTSPlayer& player,
                             std::shared_ptr<MockInterviewPipeline> pipeline, Clock& clock,
                             TelemetryClient* telemetry = nullptr, QObject* parent = nullptr);
    ~MockInterviewCoordinator() override;

    // Ends once the question loop has been set going (or the fetch failed); a second call is
    // ignored.
    QCoro::Task<> startSession(std::optional<QString> resumeId,
                               std::optional<QString> jobDescriptionId, QString language,
                               int count = questionCountPerSession);
    // Moves on from a question the user has answered; does nothing while one is being spoken.
    Q_INVOKABLE void skip();
    QCoro::Task<> abort(QString reason);

    State state() const { return m_state; }
    QString phase() const;
    int currentIndex() const { return m_currentIndex; }
    int questionCount() const { return int(m_questions.size()); }
    const QList<MockQuestion>& questions() const { return m_questions; }
    std::optional<QString> sessionId() const { return m_sessionId; }
    QString abortReason() const
    {
        return m_state.kind == State::Kind::aborted ? m_state.reason : QString();
    }
    QImage avatarImage() const { return m_avatarImage; }
    void setAvatarImage(QImage image);

Q_SIGNALS:
    void stateChanged();
    void currentIndexChanged();
    void questionsChanged();
    void avatarImageChanged();

private:
    static QCoro::Task<> runLoop(QPointer<MockInterviewCoordinator> self, CancellationToken token);
    static QCoro::Task<> startPipeline(std::shared_ptr<MockInterviewPipeline> pipeline,
                                       QString sessionId);
    QCoro::Task<> runStart(std::optional<QString> resumeId, std::optional<QString> jobDescriptionId,
                           QString language, int count);
    void finish();
    void setState(State state);
    void setCurrentIndex(int index);

    State m_state;
    QList<MockQuestion> m_questions;
    int m_currentIndex = 0;
    // No step adds to it: the completion event reports 0.
    int m_userTriggeredAIAnswersThisSession = 0;
    std::optional<qint64> m_startedAtMs;
    std::optional<QString> m_sessionId;
    QImage m_avatarImage;
    QPointer<MockInterviewAPI> m_api;
    QPointer<TTSPlayer> m_player;
    std::shared_ptr<MockInterviewPipeline> m_pipeline;
    Clock& m_clock;
    QPointer<TelemetryClient> m_telemetry;
    TaskHandle m_driverTask;
    TaskHandle m_pipelineStart;
    // Wakes the start's wait for the pipeline when the session is aborted.
    CancellationToken m_sessionToken;
    std::optional<CancellationToken> m_skipContinuation;
};
