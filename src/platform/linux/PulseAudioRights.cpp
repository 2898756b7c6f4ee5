#include "PulseAudioRights.h"

#include "Clock.h"
#include "PulseClient.h"

#include <algorithm>

PulseAudioRights::PulseAudioRights(Clock& clock, QByteArray server)
    : m_clock(&clock)
    , m_server(std::move(server))
{
}

QCoro::Task<bool> PulseAudioRights::systemAudioGranted()
{
    return check(Right::systemAudio, m_server, m_clock);
}

QCoro::Task<bool> PulseAudioRights::microphoneGranted()
{
    return check(Right::microphone, m_server, m_clock);
}

QCoro::Task<bool> PulseAudioRights::check(Right right, QByteArray server, Clock* clock)
{
    // One deadline for the whole check, however many round trips it takes.
    const qint64 deadline = clock->nowMs() + answerWithin.count();
    const auto remaining = [clock, deadline] {
        return std::chrono::milliseconds(std::max<qint64>(deadline - clock->nowMs(), 0));
    };
    try {
        auto client = co_await PulseClient::connect(std::move(server), clock, remaining());
        const auto info = co_await client->serverInfo(remaining());
        const bool systemAudio = right == Right::systemAudio;
        const QByteArray device = systemAudio ? info.defaultSinkName : info.defaultSourceName;
        if (device.isEmpty())
            co_return false;
        QByteArray name = systemAudio ? device + QByteArrayLiteral(".monitor") : device;
        const auto source = co_await client->sourceInfo(std::move(name), remaining());
        co_return source && source->isMonitor == systemAudio;
    } catch (const AudioSourceError&) {
        co_return false;
    }
}
