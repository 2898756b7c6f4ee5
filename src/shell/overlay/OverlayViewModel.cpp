#include "OverlayViewModel.h"

#include "AnswersModel.h"
#include "AppStrings.h"
#include "Clock.h"
#include "NotificationCenter.h"
#include "StatusStyle.h"
#include "TranscriptRowsModel.h"
#include "TriggerName.h"
#include "UserSettings.h"

#include <QQmlEngine>
#include <QQuickTextDocument>
#include <QTextBlock>
#include <QTextBlockFormat>
#include <QTextCursor>
#include <QTextDocument>

#include <algorithm>

using namespace Qt::StringLiterals;
using State = InterviewViewModel::PipelineState;

OverlayViewModel::OverlayViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_rows(std::make_unique<TranscriptRowsModel>(m_services.interview))
    , m_answers(std::make_unique<AnswersModel>(m_services.interview))
{
    // Read by the windows, owned here.
    QQmlEngine::setObjectOwnership(m_rows.get(), QQmlEngine::CppOwnership);
    QQmlEngine::setObjectOwnership(m_answers.get(), QQmlEngine::CppOwnership);
    auto& interview = m_services.interview;
    auto& settings = m_services.settings;
    connect(&interview, &InterviewViewModel::pipelineStateChanged, this, &OverlayViewModel::statusChanged);
    connect(&interview, &InterviewViewModel::statusMessageChanged, this, &OverlayViewModel::statusChanged);
    connect(&interview, &InterviewViewModel::selectedAnswerIndexChanged, this,
            &OverlayViewModel::answerChanged);
    connect(&interview, &InterviewViewModel::isRecordingChanged, this, &OverlayViewModel::recordingChanged);
    connect(&interview, &InterviewViewModel::answerViewChanged, this, &OverlayViewModel::answerChanged);
    connect(&interview, &InterviewViewModel::aiAnswerHistoryChanged, this, &OverlayViewModel::answerChanged);
    connect(&interview, &InterviewViewModel::canRequestAnswerChanged, this,
            &OverlayViewModel::canTriggerChanged);
    connect(&settings, &UserSettings::overlayFontSizeChanged, this, &OverlayViewModel::appearanceChanged);
    connect(&settings, &UserSettings::overlayOpacityChanged, this, &OverlayViewModel::appearanceChanged);
    connect(&settings, &UserSettings::autoTriggerAIAnswersChanged, this, &OverlayViewModel::hintChanged);
    connect(&settings, &UserSettings::aiTriggerKeyChanged, this, &OverlayViewModel::hintChanged);
    connect(&settings, &UserSettings::aiTriggerKeyChanged, this, &OverlayViewModel::triggerKeyChanged);
    // A resume made active answers the tip, which would otherwise stay until it is dismissed.
    connect(&settings, &UserSettings::activeResumeIdChanged, this, [this] {
        if (m_services.settings.activeResumeId()) {
            m_resumeCheck.cancel();
            dismissResumeTip();
        }
    });
    if (auto* name = m_services.triggerName) {
        connect(name, &TriggerName::changed, this, &OverlayViewModel::hintChanged);
        connect(name, &TriggerName::changed, this, &OverlayViewModel::triggerKeyChanged);
    }
    connect(m_rows.get(), &QAbstractItemModel::rowsInserted, this, &OverlayViewModel::hintChanged);
    connect(m_rows.get(), &QAbstractItemModel::rowsRemoved, this, &OverlayViewModel::hintChanged);
    connect(m_rows.get(), &QAbstractItemModel::modelReset, this, &OverlayViewModel::hintChanged);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, [this] {
        Q_EMIT recordingChanged();
        Q_EMIT hintChanged();
    });
    m_services.notifications.addObserver(Notifications::overlayVisibilityChanged, this,
                                         [this](const Notification& n) {
                                             if (n.object.toBool())
                                                 overlayBecameVisible();
                                         });
}

OverlayViewModel::~OverlayViewModel()
{
    m_resumeCheck.cancel();
    m_services.notifications.removeObservers(this);
}

void OverlayViewModel::setLineSpacing(QQuickTextDocument* document, double spacing)
{
    if (!document || !document->textDocument())
        return;
    auto* text = document->textDocument();
    // Applied again after every change of the text; when nothing is left to do it changes
    // nothing, so a view that reapplies it on its own change notice comes to rest.
    const auto hasSpacing = [spacing](const QTextBlock& block) {
        return block.blockFormat().lineHeightType() == QTextBlockFormat::LineDistanceHeight
            && qAbs(block.blockFormat().lineHeight() - spacing) < 0.01;
    };
    if (hasSpacing(text->firstBlock()) && hasSpacing(text->lastBlock()))
        return;
    QTextCursor cursor(text);
    cursor.select(QTextCursor::Document);
    QTextBlockFormat format;
    format.setLineHeight(spacing, QTextBlockFormat::LineDistanceHeight);
    cursor.mergeBlockFormat(format);
}

QColor OverlayViewModel::statusColor() const
{
    return StatusStyle::colorOf(m_services.interview.pipelineState());
}

QString OverlayViewModel::statusMessage() const
{
    return m_services.interview.statusMessage();
}

int OverlayViewModel::selectedAnswerIndex() const
{
    const auto selected = m_services.interview.selectedAnswerIndex();
    return selected ? *selected : -1;
}

bool OverlayViewModel::isRecording() const
{
    return m_services.interview.isRecording();
}

QString OverlayViewModel::startStopText() const
{
    return m_services.strings.text(isRecording() ? u"overlay.btn_stop"_s : u"overlay.btn_start"_s);
}

QString OverlayViewModel::startStopIcon() const
{
    return isRecording() ? u"stop.fill"_s : u"record.circle"_s;
}

bool OverlayViewModel::showsHint() const
{
    return m_rows->rowCount() == 0;
}

QString OverlayViewModel::hintText() const
{
    if (m_services.settings.autoTriggerAIAnswers())
        return m_services.strings.text(u"overlay.auto_trigger_hint"_s);
    return m_services.strings.format(u"overlay.manual_trigger_hint"_s, {triggerKeyName()});
}

OverlayViewModel::AnswerView OverlayViewModel::answerViewOf(std::optional<int> selected, int count,
                                                           const QString& selectedText, bool isStreaming)
{
    AnswerView view;
    const bool inRange = selected && *selected >= 0 && *selected < count;
    if (inRange) {
        view.text = selectedText;
        view.isStreaming = isStreaming;
        view.hasPrevious = *selected > 0;
        view.hasNext = *selected < count - 1;
        view.state = isStreaming && selectedText.isEmpty() ? AnswerState::generating : AnswerState::answer;
    }
    // A dash stands for "none": nothing selected, or a selection past the list.
    view.position = (inRange ? QString::number(*selected + 1) : u"–"_s) + u'/' + QString::number(count);
    return view;
}

OverlayViewModel::AnswerView OverlayViewModel::answerView() const
{
    const auto& interview = m_services.interview;
    return answerViewOf(interview.selectedAnswerIndex(), static_cast<int>(interview.aiAnswerHistory().size()),
                        interview.currentAnswerText(), interview.isSelectedAnswerStreaming());
}

QString OverlayViewModel::selectedAnswerText() const
{
    return answerView().text;
}

bool OverlayViewModel::isStreaming() const
{
    return answerView().isStreaming;
}

OverlayViewModel::AnswerState OverlayViewModel::answerState() const
{
    return answerView().state;
}

QString OverlayViewModel::positionText() const
{
    return answerView().position;
}

bool OverlayViewModel::hasPreviousAnswer() const
{
    return answerView().hasPrevious;
}

bool OverlayViewModel::hasNextAnswer() const
{
    return answerView().hasNext;
}

bool OverlayViewModel::canTrigger() const
{
    return m_services.interview.canRequestAnswer();
}

double OverlayViewModel::fontSize() const
{
    return m_services.settings.overlayFontSize();
}

double OverlayViewModel::panelOpacity() const
{
    return m_services.settings.overlayOpacity();
}

QString OverlayViewModel::triggerKeyName() const
{
    if (m_services.triggerName)
        return m_services.triggerName->text();
    return m_services.settings.aiTriggerKey().displayName;
}

double OverlayViewModel::draggedUpperHeight(double start, double translation, double total)
{
    // The upper limit first, then the lower one: in a panel too small for both, the upper area
    // keeps its minimum.
    const double height = std::min(start + translation, total - minimumAreaHeight);
    return std::max(height, minimumAreaHeight);
}

double OverlayViewModel::upperHeightOf(double ratio, double total)
{
    return std::max(0.0, std::min(total * ratio, total - minimumAnswerHeight));
}

void OverlayViewModel::setAreasHeight(double height)
{
    if (qFuzzyCompare(m_areasHeight + 1, height + 1))
        return;
    m_areasHeight = height;
    Q_EMIT dividerChanged();
}

void OverlayViewModel::dragDivider(double start, double translation, double total)
{
    if (total <= 0)
        return;
    m_isDragging = true;
    m_dividerRatio = draggedUpperHeight(start, translation, total) / total;
    Q_EMIT dividerChanged();
}

void OverlayViewModel::endDividerDrag()
{
    if (!m_isDragging)
        return;
    m_isDragging = false;
    Q_EMIT dividerChanged();
}

void OverlayViewModel::toggleInterview()
{
    if (m_services.interview.isRecording())
        m_services.interview.requestStopInterview();
    else
        m_services.interview.requestStartInterview();
}

void OverlayViewModel::openResume()
{
    dismissResumeTip();
    m_services.notifications.post(Notifications::showDashboard, {}, {{u"page"_s, u"resume"_s}});
}

void OverlayViewModel::openJobDescription()
{
    m_services.notifications.post(Notifications::showDashboard, {}, {{u"page"_s, u"jobDescription"_s}});
}

void OverlayViewModel::openSettings()
{
    m_services.notifications.post(Notifications::showDashboard);
}

void OverlayViewModel::closeOverlay()
{
    m_services.notifications.post(Notifications::toggleOverlay);
}

void OverlayViewModel::triggerAnswer()
{
    m_services.notifications.post(Notifications::triggerAI);
}

void OverlayViewModel::selectPreviousAnswer()
{
    m_services.interview.selectPreviousAnswer();
}

void OverlayViewModel::selectNextAnswer()
{
    m_services.interview.selectNextAnswer();
}

void OverlayViewModel::dismissResumeTip()
{
    setShowResumeTip(false);
}

void OverlayViewModel::setShowResumeTip(bool show)
{
    if (m_showResumeTip == show)
        return;
    m_showResumeTip = show;
    Q_EMIT showResumeTipChanged();
}

void OverlayViewModel::overlayBecameVisible()
{
    if (m_showResumeTip)
        return;
    m_resumeCheck.cancel();
    m_resumeCheck = TaskHandle::run([this](const CancellationToken& token) { return checkResumes(token); });
}

QCoro::Task<> OverlayViewModel::checkResumes(CancellationToken token)
{
    if (!m_services.countResumes)
        co_return;
    QPointer self(this);
    Clock& clock = m_services.clock;
    qsizetype count = 0;
    try {
        count = co_await m_services.countResumes();
    } catch (...) {
        // A failed request counts as no resume: the tip is a nudge, and wrong at worst.
        count = 0;
    }
    if (!self || token.isCancelled() || count > 0)
        co_return;
    const bool slept = co_await clock.sleep(resumeTipDelay, token);
    if (!self || !slept)
        co_return;
    setShowResumeTip(true);
}
