#pragma once

#include "AnswersModel.h"
#include "AppStrings.h"
#include "InterviewViewModel.h"
#include "TaskHandle.h"
#include "TranscriptRowsModel.h"
#include "UserSettings.h"

#include <QColor>
#include <QCoroTask>
#include <QObject>
#include <QQuickTextDocument>
#include <QString>
#include <QtQmlIntegration>

#include <chrono>
#include <functional>
#include <memory>

class Clock;
class NotificationCenter;
class TriggerName;

// What the overlay shows, worked out from the interview, the settings and the strings; the
// overlay's QML draws it and hands clicks and drags back here. Its only state of its own is the
// layout: the divider's place and the resume tip.
class OverlayViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(TranscriptRowsModel* transcriptRows READ transcriptRows CONSTANT)
    Q_PROPERTY(AnswersModel* answers READ answers CONSTANT)
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)
    // The user's overlay settings, as the panel draws them.
    Q_PROPERTY(double fontSize READ fontSize NOTIFY appearanceChanged)
    Q_PROPERTY(double panelOpacity READ panelOpacity NOTIFY appearanceChanged)
    Q_PROPERTY(QColor statusColor READ statusColor NOTIFY statusChanged)
    Q_PROPERTY(QString statusMessage READ statusMessage NOTIFY statusChanged)
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY recordingChanged)
    Q_PROPERTY(QString startStopText READ startStopText NOTIFY recordingChanged)
    Q_PROPERTY(QString startStopIcon READ startStopIcon NOTIFY recordingChanged)
    Q_PROPERTY(bool showsHint READ showsHint NOTIFY hintChanged)
    Q_PROPERTY(QString hintText READ hintText NOTIFY hintChanged)
    Q_PROPERTY(QString selectedAnswerText READ selectedAnswerText NOTIFY answerChanged)
    Q_PROPERTY(bool isStreaming READ isStreaming NOTIFY answerChanged)
    Q_PROPERTY(AnswerState answerState READ answerState NOTIFY answerChanged)
    Q_PROPERTY(QString positionText READ positionText NOTIFY answerChanged)
    // The selected answer's row, or -1.
    Q_PROPERTY(int selectedAnswerIndex READ selectedAnswerIndex NOTIFY answerChanged)
    Q_PROPERTY(bool hasPreviousAnswer READ hasPreviousAnswer NOTIFY answerChanged)
    Q_PROPERTY(bool hasNextAnswer READ hasNextAnswer NOTIFY answerChanged)
    Q_PROPERTY(bool canTrigger READ canTrigger NOTIFY canTriggerChanged)
    Q_PROPERTY(QString triggerKeyName READ triggerKeyName NOTIFY triggerKeyChanged)
    Q_PROPERTY(double dividerRatio READ dividerRatio NOTIFY dividerChanged)
    // The height the transcript and the answer share, which the panel's size gives; the upper
    // area's height follows from it and the divider.
    Q_PROPERTY(double areasHeight READ areasHeight WRITE setAreasHeight NOTIFY dividerChanged)
    Q_PROPERTY(double upperHeight READ upperHeight NOTIFY dividerChanged)
    Q_PROPERTY(bool isDragging READ isDragging NOTIFY dividerChanged)
    Q_PROPERTY(bool showResumeTip READ showResumeTip NOTIFY showResumeTipChanged)

public:
    enum class AnswerState { placeholder, generating, answer };
    Q_ENUM(AnswerState)

    // The number of the user's resumes; throws when the request fails.
    using ResumeCounter = std::function<QCoro::Task<qsizetype>()>;

    static constexpr double initialDividerRatio = 0.2;
    // Neither area can be dragged smaller than this.
    static constexpr double minimumAreaHeight = 40;
    // However the divider stands, the answer keeps room for a few lines and its bar.
    static constexpr double minimumAnswerHeight = 120;
    // The tip waits for the overlay's entrance to settle.
    static constexpr std::chrono::milliseconds resumeTipDelay{600};

    struct Services {
        InterviewViewModel& interview;
        UserSettings& settings;
        AppStrings& strings;
        NotificationCenter& notifications;
        Clock& clock;
        // Empty while there is no client for the backend.
        ResumeCounter countResumes;
        // None: the trigger is named by the key of the settings.
        TriggerName* triggerName = nullptr;
    };

    explicit OverlayViewModel(Services services, QObject* parent = nullptr);
    ~OverlayViewModel() override;

    // The question to the backend whether the user has a resume is still out.
    bool isCheckingResumes() const { return !m_resumeCheck.isFinished(); }

    TranscriptRowsModel* transcriptRows() const { return m_rows.get(); }
    AnswersModel* answers() const { return m_answers.get(); }

    AppStrings* strings() const { return &m_services.strings; }
    double fontSize() const;
    double panelOpacity() const;
    QColor statusColor() const;
    QString statusMessage() const;
    int selectedAnswerIndex() const;
    bool isRecording() const;
    QString startStopText() const;
    QString startStopIcon() const;
    bool showsHint() const;
    QString hintText() const;
    // The selected answer, or nothing when no answer or one out of range is selected.
    QString selectedAnswerText() const;
    bool isStreaming() const;
    AnswerState answerState() const;
    QString positionText() const;
    bool hasPreviousAnswer() const;
    bool hasNextAnswer() const;
    // Whether an answer can be asked for now, which the AI button shows.
    bool canTrigger() const;
    // What the user presses in other programs for an answer: the key, the chord the desktop
    // bound, or the key bound to our command.
    QString triggerKeyName() const;
    double dividerRatio() const { return m_dividerRatio; }
    double areasHeight() const { return m_areasHeight; }
    void setAreasHeight(double height);
    double upperHeight() const { return upperHeightOf(m_dividerRatio, m_areasHeight); }
    bool isDragging() const { return m_isDragging; }
    bool showResumeTip() const { return m_showResumeTip; }

    // Everything the answer section shows. The selected text and the streaming test are the
    // interview's own; this adds what only the panel needs. Nothing selected, or a selection
    // past the list, shows the placeholder; a selected answer shows even when it has no text.
    struct AnswerView {
        QString text;
        bool isStreaming = false;
        AnswerState state = AnswerState::placeholder;
        QString position;
        bool hasPrevious = false;
        bool hasNext = false;
    };
    static AnswerView answerViewOf(std::optional<int> selected, int count, const QString& selectedText,
                                   bool isStreaming);

    // The upper area's height after a drag of the divider by `translation` from `start`, with
    // `total` the height of both areas together.
    static double draggedUpperHeight(double start, double translation, double total);
    // The upper area's height for a divider at `ratio` of `total`, short of the answer's minimum.
    static double upperHeightOf(double ratio, double total);

    Q_INVOKABLE void toggleInterview();
    Q_INVOKABLE void openResume();
    Q_INVOKABLE void openJobDescription();
    Q_INVOKABLE void openSettings();
    Q_INVOKABLE void closeOverlay();
    Q_INVOKABLE void triggerAnswer();
    Q_INVOKABLE void selectPreviousAnswer();
    Q_INVOKABLE void selectNextAnswer();
    Q_INVOKABLE void dismissResumeTip();
    Q_INVOKABLE void dragDivider(double start, double translation, double total);
    Q_INVOKABLE void endDividerDrag();

    // Extra space between the lines of a selectable text; Qt Quick's TextEdit has no property
    // for it.
    Q_INVOKABLE static void setLineSpacing(QQuickTextDocument* document, double spacing);

Q_SIGNALS:
    void statusChanged();
    void recordingChanged();
    void hintChanged();
    void answerChanged();
    void canTriggerChanged();
    void triggerKeyChanged();
    void dividerChanged();
    void appearanceChanged();
    void showResumeTipChanged();

private:
    AnswerView answerView() const;
    void overlayBecameVisible();
    QCoro::Task<> checkResumes(CancellationToken token);
    void setShowResumeTip(bool show);

    Services m_services;
    std::unique_ptr<TranscriptRowsModel> m_rows;
    std::unique_ptr<AnswersModel> m_answers;
    double m_dividerRatio = initialDividerRatio;
    double m_areasHeight = 0;
    bool m_isDragging = false;
    bool m_showResumeTip = false;
    TaskHandle m_resumeCheck;
};
