#include "TelemetryClient.h"

#include "BuildConfig.h"
#include "Clock.h"
#include "Helpers.h"
#include "PreferencesStore.h"

#include <QCoroNetworkReply>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QSysInfo>

using namespace Qt::StringLiterals;

namespace {

const QString deviceIdKey = u"telemetryDeviceId"_s;
const QString optInKey = u"sendAnonymousTelemetry"_s;
const QString firstInterviewKey = u"telemetryFirstInterviewLogged"_s;
const QString firstAnswerKey = u"telemetryFirstAnswerLogged"_s;

QJsonValue toJson(const TelemetryClient::PropValue& value)
{
    return std::visit([](const auto& v) { return QJsonValue(v); }, value);
}

} // namespace

TelemetryClient::Environment TelemetryClient::Environment::current()
{
    // "6.1.0-18-amd64" -> "6.1.0"
    static const QRegularExpression release(u"^(\\d+)(?:\\.(\\d+))?(?:\\.(\\d+))?"_s);
    const auto match = release.match(QSysInfo::kernelVersion());
    const auto part = [&](int group) {
        const auto text = match.captured(group);
        return text.isEmpty() ? u"0"_s : text;
    };
#if defined(Q_PROCESSOR_ARM_64)
    const auto arch = u"arm64"_s;
#else
    const auto arch = u"x64"_s;
#endif
    return {QString::fromUtf16(BuildConfig::version), part(1) + u'.' + part(2) + u'.' + part(3), arch,
            QLocale::system().name()};
}

TelemetryClient::TelemetryClient(QString baseURL, PreferencesStore& preferences, Clock& clock,
                                 Environment environment, QNetworkAccessManager* network,
                                 QObject* parent)
    : QObject(parent)
    , m_baseURL(std::move(baseURL))
    , m_preferences(preferences)
    , m_clock(clock)
    , m_environment(std::move(environment))
    , m_network(network ? network : new QNetworkAccessManager(this))
{
    m_deviceId = preferences.string(deviceIdKey).value_or(QString());
    if (m_deviceId.isEmpty()) {
        m_deviceId = uuidLower();
        preferences.setString(deviceIdKey, m_deviceId);
    }
}

TelemetryClient::~TelemetryClient()
{
    m_flushTask.cancel();
}

QString TelemetryClient::userAgent() const
{
    return u"RavletAI/"_s + m_environment.appVersion + u" (Linux; telemetry)"_s;
}

bool TelemetryClient::isAllowed() const
{
    if (!m_killSwitchEnabled || !m_preferences.boolean(optInKey).value_or(true))
        return false;
    if (m_sampleRate >= 1.0)
        return true;
    // The process-seeded hash: a device is in or out for the whole run, maybe not the next.
    const auto fraction = double(qHash(m_deviceId, QHashSeed::globalSeed()) % 10000) / 10000.0;
    return m_sampleRate > fraction;
}

void TelemetryClient::start()
{
    m_flushTask.cancel();
    m_flushTask = TaskHandle::run([this](const CancellationToken& token) { return runFlushLoop(token); });
}

QCoro::Task<> TelemetryClient::runFlushLoop(CancellationToken token)
{
    QPointer self(this);
    Clock& clock = m_clock;
    while (co_await clock.sleep(flushInterval, token)) {
        if (!self)
            co_return;
        co_await flush();
    }
}

void TelemetryClient::track(const QString& name, const QString& category, std::optional<Props> props)
{
    if (!isAllowed())
        return;
    m_buffer.append({name, category, formatIso8601(m_clock.nowMs(), Iso8601::withFractionalSeconds),
                     std::move(props)});
    if (m_buffer.size() >= flushBatchSize)
        flush(); // runs on its own; nobody waits for it
    trimBuffer();
}

void TelemetryClient::trimBuffer()
{
    if (m_buffer.size() > maxBufferSize)
        m_buffer.remove(0, m_buffer.size() - maxBufferSize);
}

QCoro::Task<> TelemetryClient::flush()
{
    if (!isAllowed()) {
        // An opt-out or a kill switch also destroys what is waiting.
        m_buffer.clear();
        co_return;
    }
    if (m_buffer.isEmpty())
        co_return;
    // The batch stays in the buffer while it is sent; events may be appended meanwhile.
    auto batch = m_buffer.mid(0, flushBatchSize);
    const auto count = batch.size();
    QPointer self(this);
    const auto result = co_await sendBatch(std::move(batch));
    if (!self)
        co_return;
    switch (result) {
    case SendResult::sent:
        m_buffer.remove(0, std::min(count, m_buffer.size()));
        break;
    case SendResult::stopped:
        break;
    case SendResult::failed:
        trimBuffer();
        break;
    }
}

QJsonObject TelemetryClient::commonFields() const
{
    return {
        {u"deviceId"_s, m_deviceId},
        {u"platform"_s, u"linux"_s},
        {u"appVersion"_s, m_environment.appVersion},
        {u"osVersion"_s, m_environment.osVersion},
        {u"arch"_s, m_environment.arch},
        {u"locale"_s, m_environment.locale},
        {u"region"_s, u"global"_s},
    };
}

QCoro::Task<TelemetryClient::SendResult> TelemetryClient::sendBatch(QList<PendingEvent> batch)
{
    QJsonArray events;
    for (const auto& event : batch) {
        QJsonObject object{{u"name"_s, event.name}, {u"category"_s, event.category}, {u"clientTs"_s, event.clientTs}};
        if (event.props) {
            QJsonObject props;
            for (const auto& [key, value] : *event.props)
                props.insert(key, toJson(value));
            object.insert(u"props"_s, props);
        }
        events.append(object);
    }
    auto body = commonFields();
    body.insert(u"events"_s, events);

    QNetworkRequest request(QUrl(m_baseURL + u"/api/v1/telemetry/events"_s));
    request.setTransferTimeout(timeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    QPointer self(this);
    ReplyPtr reply(m_network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)));
    co_await reply.get();
    if (!self)
        co_return SendResult::failed;
    const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        co_return SendResult::failed;
    if (status.toInt() == 204) {
        // The backend has switched telemetry off for this run.
        m_killSwitchEnabled = false;
        m_buffer.clear();
        co_return SendResult::stopped;
    }
    co_return status.toInt() >= 200 && status.toInt() <= 299 ? SendResult::sent : SendResult::failed;
}

QCoro::Task<> TelemetryClient::fetchConfig()
{
    QNetworkRequest request(QUrl(m_baseURL + u"/api/v1/telemetry/config"_s));
    request.setTransferTimeout(timeoutMs);
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    QPointer self(this);
    ReplyPtr reply(m_network->get(request));
    co_await reply.get();
    if (!self)
        co_return;
    const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid() || status.toInt() < 200 || status.toInt() > 299)
        co_return;
    const auto document = QJsonDocument::fromJson(reply->readAll());
    if (!document.isObject())
        co_return;
    const auto config = document.object();
    if (const auto enabled = config.value(u"enabled"_s); enabled.isBool())
        m_killSwitchEnabled = enabled.toBool();
    if (const auto rate = config.value(u"sampleRate"_s); rate.isDouble())
        m_sampleRate = std::clamp(rate.toDouble(), 0.0, 1.0);
}

QCoro::Task<> TelemetryClient::reportCrash(QString exceptionType, QString exceptionMessage,
                                           QString stackTrace, QString lastState)
{
    if (!isAllowed())
        co_return;
    auto payload = commonFields();
    payload.insert(u"exceptionType"_s, exceptionType);
    payload.insert(u"exceptionMessage"_s, exceptionMessage.left(maxCrashMessageLength));
    payload.insert(u"stackTrace"_s, stackTrace.left(maxCrashStackLength));
    payload.insert(u"lastState"_s, lastState);
    // The moment of the upload, not of the crash.
    payload.insert(u"clientTs"_s, formatIso8601(m_clock.nowMs(), Iso8601::withFractionalSeconds));

    QNetworkRequest request(QUrl(m_baseURL + u"/api/v1/telemetry/crash"_s));
    request.setTransferTimeout(timeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    ReplyPtr reply(m_network->post(request, QJsonDocument(payload).toJson(QJsonDocument::Compact)));
    co_await reply.get();
}

QString TelemetryClient::countBucket(qint64 count)
{
    if (count <= 0)
        return u"zero"_s;
    if (count <= 4)
        return u"1_4"_s;
    if (count <= 19)
        return u"5_19"_s;
    return u"20_plus"_s;
}

QString TelemetryClient::durationBucket(double seconds)
{
    if (seconds < 60)
        return u"under_1m"_s;
    if (seconds < 300)
        return u"1_5m"_s;
    if (seconds < 900)
        return u"5_15m"_s;
    if (seconds < 1800)
        return u"15_30m"_s;
    if (seconds < 3600)
        return u"30_60m"_s;
    return u"over_60m"_s;
}

void TelemetryClient::appLaunched()
{
    track(u"app_launched"_s, u"funnel"_s, Props{{u"cold_start"_s, true}});
}

void TelemetryClient::authSuccess()
{
    track(u"auth_success"_s, u"funnel"_s, Props{{u"method"_s, u"google"_s}});
}

void TelemetryClient::firstInterviewStarted()
{
    if (m_preferences.boolean(firstInterviewKey).value_or(false))
        return;
    // The flag first: the event goes out once per installation at most.
    m_preferences.setBool(firstInterviewKey, true);
    track(u"first_interview_started"_s, u"funnel"_s);
}

void TelemetryClient::firstAnswerReceived(qint64 latencyMs)
{
    if (m_preferences.boolean(firstAnswerKey).value_or(false))
        return;
    m_preferences.setBool(firstAnswerKey, true);
    track(u"first_answer_received"_s, u"funnel"_s, Props{{u"latency_ms"_s, latencyMs}});
}

void TelemetryClient::sessionCompleted(qint64 durationSeconds, qint64 answerCount)
{
    track(u"session_completed"_s, u"feature"_s,
          Props{{u"duration_bucket"_s, durationBucket(double(durationSeconds))},
                {u"answer_count_bucket"_s, countBucket(answerCount)}});
}

void TelemetryClient::audioCaptureFailed(const QString& errorCode, const QString& category)
{
    track(u"audio_capture_failed"_s, u"error"_s, Props{{u"error_code"_s, errorCode}, {u"category"_s, category}});
}

void TelemetryClient::sttFailed(const QString& provider, const QString& errorCode)
{
    track(u"stt_failed"_s, u"error"_s, Props{{u"provider"_s, provider}, {u"error_code"_s, errorCode}});
}

void TelemetryClient::sttProviderChanged(const QString& provider)
{
    track(u"stt_provider_changed"_s, u"feature"_s, Props{{u"provider"_s, provider}});
}

void TelemetryClient::apiFailed(const QString& route, qint64 status)
{
    track(u"api_failed"_s, u"error"_s, Props{{u"route"_s, route}, {u"status"_s, status}});
}

namespace {
TelemetryClient::Props outcome(bool success, const std::optional<QString>& errorCode)
{
    TelemetryClient::Props props{{u"success"_s, success}};
    if (!success && errorCode)
        props.append({u"error_code"_s, *errorCode});
    return props;
}
} // namespace

void TelemetryClient::resumeUpload(bool success, const std::optional<QString>& errorCode)
{
    track(u"resume_upload"_s, u"feature"_s, outcome(success, errorCode));
}

void TelemetryClient::jdUpload(bool success, const std::optional<QString>& errorCode)
{
    track(u"jd_upload"_s, u"feature"_s, outcome(success, errorCode));
}

void TelemetryClient::mockInterviewStarted(qint64 questionCount, bool hasResume, bool hasJd)
{
    track(u"mock_interview_started"_s, u"funnel"_s,
          Props{{u"question_count"_s, questionCount}, {u"has_resume"_s, hasResume}, {u"has_jd"_s, hasJd}});
}

void TelemetryClient::mockInterviewCompleted(qint64 questionCount, qint64 answeredCount,
                                             qint64 aiTriggeredCount, qint64 durationSeconds)
{
    track(u"mock_interview_completed"_s, u"funnel"_s,
          Props{{u"question_count"_s, questionCount},
                {u"answered_count_bucket"_s, countBucket(answeredCount)},
                {u"ai_triggered_count_bucket"_s, countBucket(aiTriggeredCount)},
                {u"duration_bucket"_s, durationBucket(double(durationSeconds))}});
}

void TelemetryClient::mockInterviewAborted(const QString& reason, qint64 questionIndex)
{
    track(u"mock_interview_aborted"_s, u"error"_s, Props{{u"reason"_s, reason}, {u"question_index"_s, questionIndex}});
}

void TelemetryClient::mockQuestionPlayed(qint64 questionIndex, const QString& category)
{
    track(u"mock_question_played"_s, u"feature"_s,
          Props{{u"question_index"_s, questionIndex}, {u"category"_s, category}});
}

void TelemetryClient::mockAvatarGenerated(bool firstTime)
{
    track(u"mock_avatar_generated"_s, u"feature"_s, Props{{u"first_time"_s, firstTime}});
}

void TelemetryClient::selfUpdate(const QString& phase, bool success)
{
    track(u"self_update"_s, u"feature"_s, Props{{u"phase"_s, phase}, {u"success"_s, success}});
}

void TelemetryClient::hotkeyUsed(const QString& hotkeyName)
{
    track(u"hotkey_used"_s, u"feature"_s, Props{{u"hotkey_name"_s, hotkeyName}});
}

void TelemetryClient::settingsOpened()
{
    track(u"settings_opened"_s, u"feature"_s, Props{{u"page"_s, u"general"_s}});
}

void TelemetryClient::overlayToggled(bool visible)
{
    track(u"overlay_toggled"_s, u"feature"_s, Props{{u"visible"_s, visible}});
}
